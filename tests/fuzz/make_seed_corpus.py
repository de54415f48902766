"""Writes seed corpora for the fuzz targets, one folder per target under the given folder.

Usage: python3 make_seed_corpus.py <folder> [<keyloft>]
With the tool, the stored-key seeds also hold the data of a card it made, laid out with room for
records added in place.
"""
import datetime
import os
import plistlib
import sqlite3
import struct
import subprocess
import sys
import tempfile

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, ed25519, rsa
from cryptography.x509.oid import NameOID

PASSWORD = "test"  # the password pkcs12_reader_fuzzer reads every file with


# decode_stored_keys_fuzzer: stored-key configuration data.

def bastion(fill, protection):
    return {"bastionKey": {"pubKeyHash": bytes([fill]) * 20, "keyData": bytes([0xB0, fill]) * 30,
                           "biometryProtection": protection}}


def sealed(fill, key_type, protection):
    return {"sealedKey": {"pubKeyHash": bytes([fill]) * 20, "keyType": key_type,
                          "wrappedPrivateKey": bytes([fill]) * 97,
                          "wrappingPrivateKeyData": bytes([0x5E, fill]) * 20,
                          "biometryProtection": protection}}


def pairs(*entries):
    flat = []
    for fill, storage in entries:
        flat += [bytes([fill]) * 20, storage]
    return flat


STORED_KEYS = {
    "empty": {"version": 1, "keys": []},
    "no_keys": {"version": 1},
    "mixed": {"version": 1, "keys": pairs((1, bastion(1, "off")), (2, sealed(2, "ec", "on")),
                                          (3, sealed(3, "rsa", "off")), (4, {}))},
    "duplicate": {"version": 1, "keys": pairs((5, bastion(5, "off")), (5, bastion(5, "on")))},
    "version_2": {"version": 2, "keys": pairs((6, bastion(6, "on")))},
    "odd_pairs": {"version": 1, "keys": [bytes(20)]},
    "bio": {"version": 1, "keys": pairs((7, bastion(7, "bio")))},
    "other_types": {"version": 1, "keys": pairs((8, {"bastionKey": {"pubKeyHash": True, "keyData": 1.5,
                                                                    "biometryProtection": "on"}}))},
}


def card_data(keyloft):
    with tempfile.TemporaryDirectory() as home:
        env = dict(os.environ, HOME=home, XDG_DATA_HOME=home, KEYLOFT_KEY_PROCESSOR="soft")
        for label in ("one", "two"):
            subprocess.run([keyloft, "create-identity", "-l", label, "-k", "p-256"], env=env,
                           check=True, capture_output=True, timeout=60)
        db = sqlite3.connect(os.path.join(home, "keyloft", "tokens.db"))
        return db.execute("SELECT config_data FROM tokens").fetchone()[0]


def stored_keys(keyloft):
    seeds = {name + ".bplist": plistlib.dumps(root, fmt=plistlib.FMT_BINARY, sort_keys=False)
             for name, root in STORED_KEYS.items()}
    if keyloft:
        seeds["with_room.bplist"] = card_data(keyloft)
    return seeds


# pkcs12_reader_fuzzer: files without a MAC, so that mutations reach the bags behind it.

def tlv(tag, content):
    size = len(content)
    if size < 0x80:
        return bytes([tag, size]) + content
    length = size.to_bytes((size.bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(length)]) + length + content


def sequence(*parts):
    return tlv(0x30, b"".join(parts))


def set_of(*parts):
    return tlv(0x31, b"".join(sorted(parts)))


def octets(data):
    return tlv(0x04, data)


def explicit0(content):
    return tlv(0xA0, content)


def oid(dotted):
    first, second, *rest = (int(part) for part in dotted.split("."))
    body = bytearray([40 * first + second])
    for arc in rest:
        chunk = [arc & 0x7F]
        while arc > 0x7F:
            arc >>= 7
            chunk.append(0x80 | (arc & 0x7F))
        body += bytes(reversed(chunk))
    return tlv(0x06, bytes(body))


OID_DATA = "1.2.840.113549.1.7.1"
OID_KEY_BAG = "1.2.840.113549.1.12.10.1.1"
OID_CERT_BAG = "1.2.840.113549.1.12.10.1.3"
OID_SAFE_CONTENTS_BAG = "1.2.840.113549.1.12.10.1.6"
OID_X509_CERTIFICATE = "1.2.840.113549.1.9.22.1"
OID_LOCAL_KEY_ID = "1.2.840.113549.1.9.21"


def certificate_of(key, name):
    subject = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, name)])
    now = datetime.datetime(2024, 1, 1, tzinfo=datetime.timezone.utc)
    algorithm = None if isinstance(key, ed25519.Ed25519PrivateKey) else hashes.SHA256()
    return (x509.CertificateBuilder().subject_name(subject).issuer_name(subject)
            .public_key(key.public_key()).serial_number(len(name) + 1)
            .not_valid_before(now).not_valid_after(now + datetime.timedelta(days=3650))
            .sign(key, algorithm))


def der(certificate):
    return certificate.public_bytes(serialization.Encoding.DER)


def bag(bag_oid, value, local_key_id=None):
    attributes = []
    if local_key_id is not None:
        attributes.append(set_of(sequence(oid(OID_LOCAL_KEY_ID), set_of(octets(local_key_id)))))
    return sequence(oid(bag_oid), explicit0(value), *attributes)


def key_bag(key, local_key_id=None):
    info = key.private_bytes(serialization.Encoding.DER, serialization.PrivateFormat.PKCS8,
                             serialization.NoEncryption())
    return bag(OID_KEY_BAG, info, local_key_id)


def cert_bag(certificate, local_key_id=None):
    value = sequence(oid(OID_X509_CERTIFICATE), explicit0(octets(der(certificate))))
    return bag(OID_CERT_BAG, value, local_key_id)


def nested(*bags):
    return bag(OID_SAFE_CONTENTS_BAG, sequence(*bags))


def pfx(*safes):
    """A PKCS#12 file without a MAC, each safe a list of bags in a data content."""
    contents = [sequence(oid(OID_DATA), explicit0(octets(sequence(*bags)))) for bags in safes]
    authenticated_safe = sequence(*contents)
    return sequence(tlv(0x02, b"\x03"),
                    sequence(oid(OID_DATA), explicit0(octets(authenticated_safe))))


def openssl_pkcs12(key, certificate, *options, password=PASSWORD):
    """A file as OpenSSL's tool writes it, with its password-based encryption."""
    with tempfile.TemporaryDirectory() as folder:
        key_file, certificate_file = os.path.join(folder, "k.pem"), os.path.join(folder, "c.pem")
        with open(key_file, "wb") as out:
            out.write(key.private_bytes(serialization.Encoding.PEM,
                                        serialization.PrivateFormat.PKCS8,
                                        serialization.NoEncryption()))
        with open(certificate_file, "wb") as out:
            out.write(certificate.public_bytes(serialization.Encoding.PEM))
        return subprocess.run(["openssl", "pkcs12", "-export", "-inkey", key_file, "-in",
                               certificate_file, "-passout", "pass:" + password, "-iter", "1",
                               *options], check=True, capture_output=True, timeout=60).stdout


def pkcs12():
    keys = {"ec": ec.generate_private_key(ec.SECP256R1()),
            "p384": ec.generate_private_key(ec.SECP384R1()),
            "p521": ec.generate_private_key(ec.SECP521R1()),
            "rsa": rsa.generate_private_key(public_exponent=65537, key_size=1024),
            "k1": ec.generate_private_key(ec.SECP256K1()),
            "ed25519": ed25519.Ed25519PrivateKey.generate()}
    certs = {name: certificate_of(key, name) for name, key in keys.items()}
    ec_key, rsa_key, ec_cert, rsa_cert = keys["ec"], keys["rsa"], certs["ec"], certs["rsa"]
    seeds = {
        "plain_ec.p12": pfx([cert_bag(ec_cert, b"1"), key_bag(ec_key, b"1")]),
        "plain_two_safes.p12": pfx([cert_bag(ec_cert, b"e"), cert_bag(rsa_cert, b"r")],
                                   [key_bag(rsa_key, b"r"), key_bag(ec_key, b"e")]),
        "plain_by_public_key.p12": pfx([cert_bag(certs["p384"]), cert_bag(rsa_cert),
                                        key_bag(rsa_key), key_bag(keys["p384"])]),
        "plain_nested.p12": pfx([nested(cert_bag(certs["p521"], b"n"),
                                        nested(key_bag(keys["p521"], b"n")))]),
        "plain_no_certificate.p12": pfx([cert_bag(rsa_cert, b"x"), key_bag(ec_key, b"y")]),
        "plain_other_curve.p12": pfx([cert_bag(certs["k1"], b"k"), key_bag(keys["k1"], b"k")]),
        "plain_ed25519.p12": pfx([cert_bag(certs["ed25519"], b"d"),
                                  key_bag(keys["ed25519"], b"d")]),
        "aes_no_mac.p12": openssl_pkcs12(ec_key, ec_cert, "-nomac"),
        "aes_rsa_no_mac.p12": openssl_pkcs12(rsa_key, rsa_cert, "-nomac"),
        "legacy_no_mac.p12": openssl_pkcs12(ec_key, ec_cert, "-nomac", "-legacy"),
        "unencrypted_no_mac.p12": openssl_pkcs12(ec_key, ec_cert, "-nomac", "-keypbe", "NONE",
                                                 "-certpbe", "NONE"),
        # The MAC path: one file that verifies under the password, one that does not.
        "aes_mac.p12": openssl_pkcs12(ec_key, ec_cert),
        "mac_other_password.p12": openssl_pkcs12(ec_key, ec_cert, password="other"),
    }
    return seeds


# pkcs11_arguments_fuzzer: the layout is described in cryptoki_input.hpp.

CKA_CLASS, CKA_TOKEN, CKA_LABEL, CKA_VALUE = 0x0, 0x1, 0x3, 0x11
CKA_KEY_TYPE, CKA_ID, CKA_SENSITIVE, CKA_SIGN, CKA_DERIVE = 0x100, 0x102, 0x103, 0x108, 0x10C
CKA_VALUE_LEN, CKA_EXTRACTABLE, CKA_EC_PARAMS = 0x161, 0x162, 0x180
CKO_PUBLIC_KEY, CKO_PRIVATE_KEY, CKO_SECRET_KEY = 2, 3, 4
CKK_EC, CKK_GENERIC_SECRET = 3, 0x10
CKM_RSA_PKCS, CKM_RSA_PKCS_OAEP, CKM_RSA_PKCS_PSS = 0x1, 0x9, 0xD
CKM_SHA256_RSA_PKCS, CKM_SHA256_RSA_PKCS_PSS, CKM_SHA384_RSA_PKCS_PSS = 0x40, 0x43, 0x44
CKM_SHA_1, CKM_SHA256, CKM_SHA384 = 0x220, 0x250, 0x260
CKM_EC_KEY_PAIR_GEN, CKM_ECDSA, CKM_ECDSA_SHA256, CKM_ECDH1_DERIVE = 0x1040, 0x1041, 0x1044, 0x1050
CKG_MGF1_SHA1, CKG_MGF1_SHA256, CKG_MGF1_SHA384 = 1, 2, 3
CKZ_DATA_SPECIFIED, CKD_NULL = 1, 1
SIGN, VERIFY, DECRYPT, DERIVE, DERIVE_OBJECT, KEY_PAIR, DIGEST = range(7)
EC_PRIVATE, EC_PUBLIC, RSA_PRIVATE, RSA_PUBLIC, CERTIFICATE = range(5)
NO_PARAMETER, STRUCTURE = 0, 1
CURVES = {256: "1.2.840.10045.3.1.7", 384: "1.3.132.0.34", 521: "1.3.132.0.35"}


def value(data):
    return bytes([len(data)]) + data


def null_value(length):
    return bytes([0xFF, length])


def ulong(number):
    return struct.pack("<Q", number)


def attribute(type_, data):
    return struct.pack("<H", type_) + value(data)


def null_attribute(type_, length):
    """An attribute with no buffer, asking for the length."""
    return struct.pack("<H", type_) + null_value(length)


def template(*attributes):
    return bytes([len(attributes)]) + b"".join(attributes)


def mechanism(type_, kind=NO_PARAMETER, parameter=b""):
    return struct.pack("<HB", type_, kind) + parameter


def pss(hash_, mgf, salt):
    return struct.pack("<HHQ", hash_, mgf, salt)


def oaep(hash_, mgf, label):
    return struct.pack("<HHH", hash_, mgf, CKZ_DATA_SPECIFIED) + value(label)


def ecdh(point):
    return struct.pack("<H", CKD_NULL) + value(b"") + value(point)


def key_pair_templates(size, extractable):
    public = template(attribute(CKA_TOKEN, b"\x01"), attribute(CKA_CLASS, ulong(CKO_PUBLIC_KEY)),
                      attribute(CKA_KEY_TYPE, ulong(CKK_EC)),
                      attribute(CKA_EC_PARAMS, oid(CURVES[size])), attribute(CKA_LABEL, b"pair"))
    private = template(attribute(CKA_TOKEN, b"\x01"), attribute(CKA_CLASS, ulong(CKO_PRIVATE_KEY)),
                       attribute(CKA_SIGN, b"\x01"), attribute(CKA_DERIVE, b"\x00"),
                       attribute(CKA_EXTRACTABLE, bytes([extractable])),
                       attribute(CKA_ID, b"\x01\x02"))
    return public + private


def pkcs11_arguments():
    point = ec.generate_private_key(ec.SECP256R1()).public_key().public_bytes(
        serialization.Encoding.X962, serialization.PublicFormat.UncompressedPoint)
    digest32, digest48 = bytes(range(32)), bytes(range(48))
    sign = lambda m, key, data: bytes([SIGN]) + m + bytes([key]) + value(data)
    return {
        "sign_ecdsa": sign(mechanism(CKM_ECDSA), EC_PRIVATE, digest32),
        "sign_ecdsa_sha256": sign(mechanism(CKM_ECDSA_SHA256), EC_PRIVATE, b"message"),
        "sign_rsa_pkcs": sign(mechanism(CKM_RSA_PKCS), RSA_PRIVATE, b"\x30" + digest32),
        "sign_sha256_rsa_pkcs": sign(mechanism(CKM_SHA256_RSA_PKCS), RSA_PRIVATE, b"message"),
        "sign_rsa_pss": sign(mechanism(CKM_RSA_PKCS_PSS, STRUCTURE,
                                       pss(CKM_SHA256, CKG_MGF1_SHA256, 32)),
                             RSA_PRIVATE, digest32),
        "sign_sha384_rsa_pss": sign(mechanism(CKM_SHA384_RSA_PKCS_PSS, STRUCTURE,
                                              pss(CKM_SHA384, CKG_MGF1_SHA384, 48)),
                                    RSA_PRIVATE, b"message"),
        "sign_ecdsa_on_public": sign(mechanism(CKM_ECDSA), EC_PUBLIC, digest32),
        "verify_pss": bytes([VERIFY]) + mechanism(CKM_SHA256_RSA_PKCS_PSS, STRUCTURE,
                                                  pss(CKM_SHA256, CKG_MGF1_SHA256, 0))
        + bytes([RSA_PUBLIC]) + value(b"message") + value(bytes(128)),
        "verify_ecdsa": bytes([VERIFY]) + mechanism(CKM_ECDSA) + bytes([EC_PUBLIC])
        + value(digest48) + value(bytes(64)),
        "decrypt_oaep_sha1": bytes([DECRYPT]) + mechanism(
            CKM_RSA_PKCS_OAEP, STRUCTURE, oaep(CKM_SHA_1, CKG_MGF1_SHA1, b""))
        + bytes([RSA_PRIVATE]) + value(b"a secret"),
        "decrypt_oaep_label": bytes([DECRYPT]) + mechanism(
            CKM_RSA_PKCS_OAEP, STRUCTURE, oaep(CKM_SHA256, CKG_MGF1_SHA256, b"label"))
        + bytes([RSA_PRIVATE]) + value(b"a secret"),
        "derive_raw_point": bytes([DERIVE]) + mechanism(CKM_ECDH1_DERIVE, STRUCTURE, ecdh(point))
        + bytes([EC_PRIVATE]),
        "derive_wrapped_point": bytes([DERIVE]) + mechanism(CKM_ECDH1_DERIVE, STRUCTURE,
                                                            ecdh(octets(point)))
        + bytes([EC_PRIVATE]),
        "derive_on_certificate": bytes([DERIVE]) + mechanism(CKM_ECDH1_DERIVE, STRUCTURE,
                                                             ecdh(point)) + bytes([CERTIFICATE]),
        "secret_object": bytes([DERIVE_OBJECT])
        + template(attribute(CKA_CLASS, ulong(CKO_SECRET_KEY)),
                   attribute(CKA_KEY_TYPE, ulong(CKK_GENERIC_SECRET)),
                   attribute(CKA_VALUE_LEN, ulong(16)), attribute(CKA_TOKEN, b"\x00"),
                   attribute(CKA_LABEL, b"shared"))
        + template(attribute(CKA_VALUE, bytes(32)), null_attribute(CKA_VALUE_LEN, 8),
                   attribute(CKA_LABEL, b"shared"), null_attribute(CKA_SIGN, 1)),
        "secret_object_sensitive": bytes([DERIVE_OBJECT])
        + template(attribute(CKA_SENSITIVE, b"\x01"), attribute(CKA_DERIVE, b"\x01"))
        + template(attribute(CKA_VALUE, bytes(8)), attribute(CKA_SENSITIVE, b"\x01")),
        "key_pair_p256": bytes([KEY_PAIR]) + key_pair_templates(256, True),
        "key_pair_p384_ne": bytes([KEY_PAIR]) + key_pair_templates(384, False),
        "key_pair_p521": bytes([KEY_PAIR]) + key_pair_templates(521, True),
        "digest_sha256": bytes([DIGEST]) + mechanism(CKM_SHA256) + value(b"message"),
        "digest_with_parameter": bytes([DIGEST]) + mechanism(CKM_SHA384, 2, value(b"\x01")),
    }


# key_identifier_fuzzer: a mode byte, then the stored form.

SOFT_STORED, SOFT_SEALED, TPM, SEALED_KEY, WRAPPED = range(5)
PRIVATE_KEY_USAGE, BIOMETRY_ANY = 0x40000000, 0x2


def header(back_end, size, access_control):
    return b"KLBK\x01" + back_end + struct.pack(">HI", size, access_control)


def tpm2b(data):
    return struct.pack(">H", len(data)) + data


def tpm_public(curve, field, attributes=0x60472):
    """TPM2B_PUBLIC of an ECC key as the TPM back end's template asks for: SHA-256 name, no
    symmetric algorithm, scheme or KDF, and the curve's point."""
    null = 0x0010
    area = struct.pack(">HHI", 0x0023, 0x000B, attributes) + tpm2b(b"")
    area += struct.pack(">HHHH", null, null, curve, null)
    area += tpm2b(os.urandom(field)) + tpm2b(os.urandom(field))
    return tpm2b(area)


def key_identifier():
    p256 = ec.generate_private_key(ec.SECP256R1())
    p384 = ec.generate_private_key(ec.SECP384R1())
    scalar = lambda key, size: key.private_numbers().private_value.to_bytes(size, "big")
    point = lambda key: key.public_key().public_bytes(
        serialization.Encoding.X962, serialization.PublicFormat.UncompressedPoint)
    usage_bio = PRIVATE_KEY_USAGE | BIOMETRY_ANY
    rsa_der = rsa.generate_private_key(public_exponent=65537, key_size=1024).private_bytes(
        serialization.Encoding.DER, serialization.PrivateFormat.TraditionalOpenSSL,
        serialization.NoEncryption())
    mode = lambda m, data: bytes([m]) + data
    return {
        "soft_stored": mode(SOFT_STORED, header(b"s", 256, PRIVATE_KEY_USAGE)
                            + os.urandom(12 + 32 + 16)),
        "soft_sealed_p256": mode(SOFT_SEALED, header(b"s", 256, PRIVATE_KEY_USAGE)
                                 + scalar(p256, 32)),
        "soft_sealed_p384_bio": mode(SOFT_SEALED, header(b"s", 384, usage_bio)
                                     + scalar(p384, 48)),
        "soft_sealed_tpm_header": mode(SOFT_SEALED, header(b"t", 256, PRIVATE_KEY_USAGE)
                                       + scalar(p256, 32)),
        "tpm_p256": mode(TPM, header(b"t", 256, PRIVATE_KEY_USAGE) + tpm_public(0x0003, 32)
                         + tpm2b(os.urandom(126))),
        "tpm_p384_bio": mode(TPM, header(b"t", 384, usage_bio) + tpm_public(0x0004, 48)
                             + tpm2b(os.urandom(158))),
        "tpm_other_attributes": mode(TPM, header(b"t", 256, PRIVATE_KEY_USAGE)
                                     + tpm_public(0x0003, 32, 0x40072) + tpm2b(os.urandom(126))),
        "sealed_key_ec": mode(SEALED_KEY, b"\x00" + point(p256) + scalar(p256, 32)),
        "sealed_key_rsa": mode(SEALED_KEY, b"\x01" + rsa_der),
        "wrapped": mode(WRAPPED, point(p256) + os.urandom(97 + 16)),
    }


# command_line_fuzzer: arguments separated by NUL bytes, the program name first.

COMMAND_LINES = {
    "create": ["create-identity", "-l", "Mail", "-k", "p-256-ne", "-prot", "bio"],
    "list": ["list-identities", "-t", "sha256", "-e", "b64"],
    "import": ["import-identities", "-f", "id.p12", "-p", "secret", "-prot", "none"],
    "export": ["export-identity", "-h", "0A1B", "-f", "out.p12", "-p"],
    "csr": ["create-csr", "-h", "0A1B", "-CN", "name", "-E", "a@example.org", "-OU", "unit",
            "-O", "organization", "-L", "city", "-ST", "state", "-C", "DE"],
    "certificate": ["import-certificate", "-f", "certificate.pem", "-l", ""],
    "options_first": ["-l", "ignored", "delete-identity", "-h", "0A1B"],
    "delete_all": ["delete-all-identities"],
    "unknown_option": ["list-identities", "-x", "1"],
    "bad_protection": ["create-identity", "-prot", "sometimes"],
}


def command_line():
    return {name: b"\0".join(word.encode() for word in ["keyloft", *words])
            for name, words in COMMAND_LINES.items()}


def main():
    folder = sys.argv[1]
    keyloft = sys.argv[2] if len(sys.argv) > 2 else None
    corpora = {"decode_stored_keys": stored_keys(keyloft), "pkcs12_reader": pkcs12(),
               "pkcs11_arguments": pkcs11_arguments(), "key_identifier": key_identifier(),
               "command_line": command_line()}
    for target, seeds in corpora.items():
        os.makedirs(os.path.join(folder, target), exist_ok=True)
        for name, data in seeds.items():
            with open(os.path.join(folder, target, name), "wb") as seed:
                seed.write(data)


main()
