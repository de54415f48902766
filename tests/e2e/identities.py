"""Identities made independently of keyloft (Python cryptography) and placed on a card."""
import datetime
import hashlib
import plistlib
import subprocess

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, rsa
from cryptography.x509.oid import NameOID

CURVES = {256: ec.SECP256R1, 384: ec.SECP384R1, 521: ec.SECP521R1}


def make_key(kind="p-256"):
    if kind.startswith("rsa-"):
        return rsa.generate_private_key(public_exponent=65537, key_size=int(kind[4:]))
    return ec.generate_private_key(CURVES[int(kind[2:5])]())


def public_key_bytes(key):
    public = key.public_key()
    if isinstance(public, rsa.RSAPublicKey):
        return public.public_bytes(serialization.Encoding.DER, serialization.PublicFormat.PKCS1)
    return public.public_bytes(serialization.Encoding.X962,
                               serialization.PublicFormat.UncompressedPoint)


def key_hash(key):
    return hashlib.sha1(public_key_bytes(key)).digest()


def make_certificate(key, common_name="Test", email=None, days=365, issuer_key=None, issuer=None):
    attributes = [x509.NameAttribute(NameOID.COMMON_NAME, common_name)] if common_name else []
    if email:
        attributes.append(x509.NameAttribute(NameOID.EMAIL_ADDRESS, email))
    subject = x509.Name(attributes)
    now = datetime.datetime.now(datetime.timezone.utc)
    signer = issuer_key or key
    return (x509.CertificateBuilder().subject_name(subject).issuer_name(issuer or subject)
            .public_key(key.public_key()).serial_number(x509.random_serial_number())
            .not_valid_before(now - datetime.timedelta(minutes=5) + min(days, 0) * datetime.timedelta(days=2))
            .not_valid_after(now + datetime.timedelta(days=days))
            .sign(signer, hashes.SHA256()))


def der(certificate):
    return certificate.public_bytes(serialization.Encoding.DER)


def openssl_file(folder, name, key, certificate, password, legacy):
    """A PKCS#12 file made by the openssl command from the key and certificate."""
    (folder / f"{name}.key").write_bytes(key.private_bytes(
        serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8, serialization.NoEncryption()))
    (folder / f"{name}.crt").write_bytes(certificate.public_bytes(serialization.Encoding.PEM))
    subprocess.run(["openssl", "pkcs12", "-export", *(["-legacy"] if legacy else []),
                    "-inkey", f"{name}.key", "-in", f"{name}.crt", "-out", f"{name}.p12",
                    "-passout", f"pass:{password}"], check=True, cwd=folder)
    return folder / f"{name}.p12"


def place(card, identities):
    """Appends (label, key, certificate, record) tuples to the card as the tool would."""
    card.run("delete-all-identities", stdin="no\n")
    items = card.items()
    data = card.config_data()
    pairs = plistlib.loads(data)["keys"] if data else []
    rows = [item[:7] for item in items]
    for label, key, certificate, record in identities:
        hash_ = key_hash(key)
        is_rsa = isinstance(key, rsa.RSAPrivateKey)
        rows.append(("certificate", hash_, label, der(certificate), None, None, None))
        rows.append(("key", hash_, label, der(certificate), 1, int(is_rsa), int(not is_rsa)))
        if record is not None:
            pairs += [hash_, record]
    card.sql("DELETE FROM items")
    with card.db_rw() as db:
        db.executemany("INSERT INTO items VALUES ('org.keyloft.token', 'user', ?, ?, ?, ?, ?, ?, ?, ?)",
                       [(i, *row) for i, row in enumerate(rows)])
        db.execute("UPDATE tokens SET config_data = ? WHERE instance = 'user'",
                   (plistlib.dumps({"version": 1, "keys": pairs}, fmt=plistlib.FMT_BINARY),))


def sealed_record(key, protection="off"):
    """A sealed-key record whose ciphertext is never opened by the listing or deletion."""
    return {"sealedKey": {"pubKeyHash": key_hash(key), "keyType": "ec", "wrappedPrivateKey": b"\0",
                          "wrappingPrivateKeyData": b"\0", "biometryProtection": protection}}


def bastion_record(key, protection="off"):
    return {"bastionKey": {"pubKeyHash": key_hash(key), "keyData": b"\0",
                           "biometryProtection": protection}}
