"""The PKCS#11 module as real clients use it: pkcs11-tool, ssh, ssh-keygen, sshd, PyKCS11 and
OpenSSL's pkcs11 engine, each result checked with openssl or cryptography."""
import dataclasses
import hashlib
import json
import os
import pathlib
import pwd
import re
import socket
import subprocess
import sys
import time
import types

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, utils

from conftest import PKCS11_MODULE, Card, engine_config
from identities import make_certificate, make_key, openssl_file

if not pathlib.Path(PKCS11_MODULE).exists():
    pytest.skip(f"no PKCS#11 module at {PKCS11_MODULE}", allow_module_level=True)

MESSAGE = b"The quick brown fox jumps over the lazy dog\n"
PSS = ["-sigopt", "rsa_padding_mode:pss", "-sigopt", "rsa_pss_saltlen:32"]


@dataclasses.dataclass
class Identity:
    label: str
    id: str  # lower-case hex, as pkcs11-tool shows it
    certificate: x509.Certificate

    @property
    def public_key(self):
        return self.certificate.public_key()

    @property
    def is_ec(self):
        return isinstance(self.public_key, ec.EllipticCurvePublicKey)

    def public_pem(self, folder):
        path = folder / f"{self.label}.pub.pem"
        path.write_bytes(self.public_key.public_bytes(
            serialization.Encoding.PEM, serialization.PublicFormat.SubjectPublicKeyInfo))
        return path

    def openssh(self):
        return self.public_key.public_bytes(serialization.Encoding.OpenSSH,
                                            serialization.PublicFormat.OpenSSH).decode()


def identities_of(card):
    """By identity label: the key item's (an issued certificate's item has none)."""
    items = card.items()
    labels = {object_id: label for kind, object_id, label, *_ in items if kind == "key"}
    return {labels.get(object_id) or label:
            Identity(labels.get(object_id) or label, object_id.hex(),
                     x509.load_der_x509_certificate(certificate))
            for kind, object_id, label, certificate, *_ in items if kind == "certificate"}


@pytest.fixture(scope="module")
def wallet(tmp_path_factory, key_processor):
    """A card with a wrapped and a bound P-256 identity, a wrapped RSA-3072 and a bound RSA-2048
    identity, and an RSA identity imported from a PKCS#12 file that openssl made."""
    home = tmp_path_factory.mktemp("wallet")
    card = Card(home)
    for label, kind in (("Wrapped", "p-256"), ("Bound", "p-256-ne"), ("RsaMade", "rsa-3072"),
                        ("RsaBound", "rsa-2048-ne")):
        card.run("create-identity", "-l", label, "-k", kind, "-CN", label)
    key = make_key("rsa-2048")
    card.run("import-identities", "-f",
             str(openssl_file(home, "rsa", key, make_certificate(key, "Rsa"), "pw", False)),
             "-p", "pw")
    return types.SimpleNamespace(card=card, identities=identities_of(card))


def tool(card, *args):
    return card.client("pkcs11-tool", "--module", PKCS11_MODULE, *args)


def verify(folder, identity, signature, options=()):
    """Checks with the openssl command that the file holds a SHA-256 signature of MESSAGE."""
    (folder / "message").write_bytes(MESSAGE)
    result = subprocess.run(["openssl", "dgst", "-sha256", "-verify", identity.public_pem(folder),
                             "-signature", signature, *options, folder / "message"],
                            capture_output=True, text=True)
    assert result.stdout == "Verified OK\n", result


def listed_objects(text):
    """pkcs11-tool's object listing as one dict per object: its heading line and fields."""
    objects = []
    for line in text.splitlines():
        if not line.startswith(" "):
            objects.append({"heading": line.strip()})
        else:
            name, _, value = line.strip().partition(":")
            objects[-1][name] = value.strip()
    return objects


def test_the_slot_holds_the_token(wallet, key_processor):
    output = tool(wallet.card, "-L").stdout
    assert len(re.findall(r"^Slot ", output, re.M)) == 1, output
    fields = dict(re.findall(r"^  (\w[\w ]*?)\s*: (.*)$", output, re.M))
    assert fields["token label"] == "keyloft"
    assert fields["token manufacturer"] == "keyloft"
    # Where new keys are made: swtpm says it is made by IBM.
    assert fields["token model"] == {"soft": "software", "tpm": "TPM 2.0 IBM"}[key_processor]
    assert re.fullmatch(r"[0-9A-Fa-f]{16}", fields["serial num"])
    assert "token initialized" in fields["token flags"]
    assert "login required" not in fields["token flags"]


def test_every_identity_shows_a_certificate_and_its_keys(wallet):
    objects = listed_objects(tool(wallet.card, "-O").stdout)
    found = {(o["heading"].split(";")[0], o["ID"]): o for o in objects}
    assert len(objects) == len(found) == 3 * len(wallet.identities)
    for identity in wallet.identities.values():
        certificate = found["Certificate Object", identity.id]
        public = found["Public Key Object", identity.id]
        private = found["Private Key Object", identity.id]
        assert [certificate["label"], public["label"], private["label"]] == [identity.label] * 3
        assert certificate["heading"] == "Certificate Object; type = X.509 cert"
        assert certificate["subject"] == f"DN: CN={identity.label}"
        if identity.is_ec:
            point = identity.public_key.public_bytes(serialization.Encoding.X962,
                                                     serialization.PublicFormat.UncompressedPoint)
            assert public["heading"] == "Public Key Object; EC  EC_POINT 256 bits"
            assert public["EC_POINT"] == "0441" + point.hex()
            assert public["EC_PARAMS"] == "06082a8648ce3d030107"  # prime256v1
            assert private["heading"] == "Private Key Object; EC"
            assert set(private["Usage"].split(", ")) == {"sign", "derive"}
        else:
            assert public["heading"] == f"Public Key Object; RSA {identity.public_key.key_size} bits"
            assert private["heading"] == "Private Key Object; RSA"
            assert set(private["Usage"].split(", ")) == {"sign", "decrypt"}


# EC public keys are checked by their EC_POINT in the listing: pkcs11-tool 0.23 reads them back
# through freed memory.
@pytest.mark.parametrize("label, kind", [("Wrapped", "cert"), ("Bound", "cert"), ("Rsa", "cert"),
                                         ("Rsa", "pubkey")])
def test_objects_read_back(wallet, tmp_path, label, kind):
    identity = wallet.identities[label]
    expected = identity.certificate.public_bytes(serialization.Encoding.DER) if kind == "cert" \
        else identity.public_key.public_bytes(serialization.Encoding.DER,
                                              serialization.PublicFormat.SubjectPublicKeyInfo)
    tool(wallet.card, "-r", "--type", kind, "--id", identity.id, "-o", str(tmp_path / kind))
    assert (tmp_path / kind).read_bytes() == expected


@pytest.mark.parametrize("label, mechanism, options, signs_digest, verify_options", [
    ("Wrapped", "ECDSA", [], True, []),
    ("Wrapped", "ECDSA-SHA256", [], False, []),
    ("Bound", "ECDSA", [], True, []),
    ("Bound", "ECDSA-SHA256", [], False, []),
    ("Rsa", "SHA256-RSA-PKCS-PSS", [], False, PSS),
    ("Rsa", "RSA-PKCS-PSS", ["--hash-algorithm", "SHA256"], True, PSS),
    ("Rsa", "SHA256-RSA-PKCS", [], False, []),
    ("RsaMade", "SHA256-RSA-PKCS", [], False, []),
    ("RsaBound", "SHA256-RSA-PKCS", [], False, []),
    ("RsaBound", "RSA-PKCS-PSS", ["--hash-algorithm", "SHA256"], True, PSS),
    ("RsaBound", "SHA256-RSA-PKCS-PSS", [], False, PSS),
])
def test_pkcs11_tool_signs(wallet, tmp_path, label, mechanism, options, signs_digest,
                           verify_options):
    identity = wallet.identities[label]
    (tmp_path / "in").write_bytes(hashlib.sha256(MESSAGE).digest() if signs_digest else MESSAGE)
    if identity.is_ec:
        options = [*options, "--signature-format", "openssl"]  # DER, from the token's r||s
    tool(wallet.card, "--sign", "-m", mechanism, "--id", identity.id, *options,
         "-i", str(tmp_path / "in"), "-o", str(tmp_path / "out"))
    verify(tmp_path, identity, tmp_path / "out", verify_options)


@pytest.mark.parametrize("label, hash_, mgf, md", [("Rsa", "SHA-1", "MGF1-SHA1", "sha1"),
                                                   ("Rsa", "SHA256", "MGF1-SHA256", "sha256"),
                                                   ("RsaBound", "SHA-1", "MGF1-SHA1", "sha1"),
                                                   ("RsaBound", "SHA256", "MGF1-SHA256", "sha256")])
def test_pkcs11_tool_decrypts_oaep(wallet, tmp_path, label, hash_, mgf, md):
    identity = wallet.identities[label]
    (tmp_path / "plain").write_bytes(MESSAGE)
    subprocess.run(["openssl", "pkeyutl", "-encrypt", "-pubin", "-inkey",
                    identity.public_pem(tmp_path), "-pkeyopt", "rsa_padding_mode:oaep",
                    "-pkeyopt", f"rsa_oaep_md:{md}", "-pkeyopt", f"rsa_mgf1_md:{md}",
                    "-in", tmp_path / "plain", "-out", tmp_path / "cipher"], check=True)
    tool(wallet.card, "--decrypt", "-m", "RSA-PKCS-OAEP", "--hash-algorithm", hash_, "--mgf", mgf,
         "--id", identity.id, "-i", str(tmp_path / "cipher"), "-o", str(tmp_path / "out"))
    assert (tmp_path / "out").read_bytes() == MESSAGE


@pytest.mark.parametrize("label", ["Wrapped", "Bound"])
def test_pkcs11_tool_derives_the_ecdh_secret(wallet, tmp_path, label):
    identity = wallet.identities[label]
    peer = ec.generate_private_key(ec.SECP256R1())
    (tmp_path / "peer.der").write_bytes(peer.public_key().public_bytes(
        serialization.Encoding.DER, serialization.PublicFormat.SubjectPublicKeyInfo))
    tool(wallet.card, "--derive", "-m", "ECDH1-DERIVE", "--id", identity.id,
         "-i", str(tmp_path / "peer.der"), "-o", str(tmp_path / "secret"))
    assert (tmp_path / "secret").read_bytes() == peer.exchange(ec.ECDH(), identity.public_key)


def test_ssh_keygen_lists_every_public_key(wallet):
    output = wallet.card.client("ssh-keygen", "-D", PKCS11_MODULE).stdout
    listed = sorted(" ".join(line.split()[:2]) for line in output.splitlines())
    assert listed == sorted(identity.openssh() for identity in wallet.identities.values())


@pytest.fixture(scope="module")
def sshd(tmp_path_factory):
    """An OpenSSH server on a free local port that lets the current user in with the keys in
    its authorized_keys file only."""
    folder = tmp_path_factory.mktemp("sshd")
    subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", folder / "host_key"],
                   check=True)
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    authorized_keys = folder / "authorized_keys"
    authorized_keys.write_text("")
    config = folder / "sshd_config"
    config.write_text(f"""ListenAddress 127.0.0.1:{port}
HostKey {folder}/host_key
PidFile {folder}/sshd.pid
AuthorizedKeysFile {authorized_keys}
StrictModes no
UsePAM no
PermitRootLogin yes
PasswordAuthentication no
KbdInteractiveAuthentication no
""")
    if os.getuid() == 0:
        os.makedirs("/run/sshd", exist_ok=True)  # sshd's privilege-separation folder
    log = folder / "sshd.log"
    with open(log, "wb") as log_file:
        server = subprocess.Popen(["/usr/sbin/sshd", "-D", "-e", "-f", config], stderr=log_file)
    deadline = time.monotonic() + 30
    while server.poll() is None and time.monotonic() < deadline:
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            break
        except OSError:
            time.sleep(0.1)
    assert server.poll() is None, log.read_text()
    yield types.SimpleNamespace(port=port, authorized_keys=authorized_keys, log=log)
    server.terminate()
    server.wait(timeout=30)


@pytest.mark.parametrize("label", ["Wrapped", "Bound", "Rsa", "RsaMade", "RsaBound"])
def test_ssh_logs_in_with_the_card(wallet, sshd, tmp_path, label):
    public = wallet.identities[label].openssh() + "\n"
    sshd.authorized_keys.write_text(public)
    # With IdentitiesOnly, ssh offers a token key only when a public key file names it.
    (tmp_path / "card.pub").write_text(public)
    user = pwd.getpwuid(os.getuid()).pw_name
    result = wallet.card.client(
        "ssh", "-F", "/dev/null", "-I", PKCS11_MODULE, "-i", str(tmp_path / "card.pub"),
        "-o", "IdentitiesOnly=yes", "-o", "StrictHostKeyChecking=no",
        "-o", "UserKnownHostsFile=/dev/null", "-o", "BatchMode=yes", "-p", str(sshd.port),
        f"{user}@127.0.0.1", "echo", "in", check=False)
    assert (result.returncode, result.stdout) == (0, "in\n"), (result, sshd.log.read_text())


def test_open_session_sees_identities_made_after_it(card):
    card.run("create-identity", "-l", "First", "-k", "p-256", "-CN", "First")
    session = subprocess.Popen(
        [sys.executable, pathlib.Path(__file__).with_name("pkcs11_session.py"), PKCS11_MODULE],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, cwd=card.home,
        env=card.client_env())

    def ask(*command):
        session.stdin.write(" ".join(command) + "\n")
        session.stdin.flush()
        return json.loads(session.stdout.readline())

    try:
        first = identities_of(card)["First"]
        assert ask("find") == [["First", first.id]]
        card.run("create-identity", "-l", "Second", "-k", "p-256", "-CN", "Second")
        second = identities_of(card)["Second"]
        assert sorted(ask("find")) == [["First", first.id], ["Second", second.id]]

        digest = hashlib.sha256(MESSAGE).digest()
        raw = bytes.fromhex(ask("sign", second.id, digest.hex()))
        signature = utils.encode_dss_signature(int.from_bytes(raw[:32], "big"),
                                               int.from_bytes(raw[32:], "big"))
        assert len(raw) == 64
        second.public_key.verify(signature, digest, ec.ECDSA(utils.Prehashed(hashes.SHA256())))

        card.run("delete-identity", "-h", first.id)
        assert ask("find") == [["Second", second.id]]
    finally:
        session.stdin.close()
        assert session.wait(timeout=60) == 0


@pytest.mark.parametrize("label, options, verify_options", [
    ("Wrapped", [], []),
    ("Bound", [], []),
    ("Rsa", ["-pkeyopt", "digest:sha256"], []),
    ("Rsa", ["-pkeyopt", "digest:sha256", "-pkeyopt", "rsa_padding_mode:pss",
             "-pkeyopt", "rsa_pss_saltlen:32"], PSS),
    ("RsaBound", ["-pkeyopt", "digest:sha256"], []),
    ("RsaBound", ["-pkeyopt", "digest:sha256", "-pkeyopt", "rsa_padding_mode:pss",
                  "-pkeyopt", "rsa_pss_saltlen:32"], PSS),
])
def test_openssl_engine_signs(wallet, tmp_path, label, options, verify_options):
    config = engine_config(tmp_path, PKCS11_MODULE)
    (tmp_path / "digest").write_bytes(hashlib.sha256(MESSAGE).digest())
    wallet.card.client("openssl", "pkeyutl", "-engine", "pkcs11", "-keyform", "engine", "-inkey",
                       f"pkcs11:token=keyloft;object={label};type=private", "-sign",
                       "-in", str(tmp_path / "digest"), "-out", str(tmp_path / "signature"),
                       *options, OPENSSL_CONF=str(config))
    verify(tmp_path, wallet.identities[label], tmp_path / "signature", verify_options)


# A PyKCS11 script's start: the module its first argument, a session on the card's slot.
SESSION = """
import sys, PyKCS11
from PyKCS11 import LowLevel
library = PyKCS11.PyKCS11Lib()
library.load(sys.argv[1])
session = library.openSession(library.getSlotList(tokenPresent=True)[0])
"""
DECRYPT_OAEP = SESSION + """
(key,) = session.findObjects([(LowLevel.CKA_CLASS, LowLevel.CKO_PRIVATE_KEY),
                              (LowLevel.CKA_ID, bytes.fromhex(sys.argv[2]))])
label = bytes.fromhex(sys.argv[4]) if len(sys.argv) > 4 else None
mechanism = PyKCS11.RSAOAEPMechanism(LowLevel.CKM_SHA256, LowLevel.CKG_MGF1_SHA256, label)
print(bytes(session.decrypt(key, bytes.fromhex(sys.argv[3]), mechanism)).hex())
"""
READ_KEY_PROCESSORS = SESSION + """
for key in session.findObjects([(LowLevel.CKA_CLASS, LowLevel.CKO_PRIVATE_KEY)]):
    label, where = session.getAttributeValue(key, [LowLevel.CKA_LABEL, 0x80000000 | 0x4B4C0001])
    print(label, bytes(where).decode())
"""


@pytest.mark.parametrize("oaep_label", [None, b"abc", b"abc\0"])
@pytest.mark.parametrize("label", ["Rsa", "RsaMade", "RsaBound"])
def test_oaep_labels_decrypt(wallet, label, oaep_label):
    """The TPM's OAEP takes only labels ending in a zero byte; the others decrypt as well."""
    from cryptography.hazmat.primitives.asymmetric import padding
    identity = wallet.identities[label]
    ciphertext = identity.public_key.encrypt(MESSAGE, padding.OAEP(
        padding.MGF1(hashes.SHA256()), hashes.SHA256(), oaep_label))
    args = [identity.id, ciphertext.hex()] + ([oaep_label.hex()] if oaep_label else [])
    output = wallet.card.client(sys.executable, "-c", DECRYPT_OAEP, PKCS11_MODULE, *args).stdout
    assert bytes.fromhex(output.strip()) == MESSAGE


def test_each_private_key_names_its_key_processor(wallet, key_processor):
    """A key made in software or bound to `soft` is told from a TPM key: the imported key is
    wrapped under a key of the processor in use, as the others are."""
    output = wallet.card.client(sys.executable, "-c", READ_KEY_PROCESSORS, PKCS11_MODULE).stdout
    assert dict(line.split() for line in output.splitlines()) == {
        label: key_processor for label in wallet.identities}


USES = SESSION + """
import hashlib
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.hazmat.primitives import serialization
answer = {}
for key in session.findObjects([(LowLevel.CKA_CLASS, LowLevel.CKO_PRIVATE_KEY)]):
    label, id_, type_ = session.getAttributeValue(
        key, [LowLevel.CKA_LABEL, LowLevel.CKA_ID, LowLevel.CKA_KEY_TYPE])
    (public,) = session.findObjects([(LowLevel.CKA_CLASS, LowLevel.CKO_PUBLIC_KEY),
                                     (LowLevel.CKA_ID, bytes(id_))])
    uses = {}
    for name, private_use, public_use in (("sign", LowLevel.CKA_SIGN, LowLevel.CKA_VERIFY),
                                          ("decrypt", LowLevel.CKA_DECRYPT, LowLevel.CKA_ENCRYPT),
                                          ("derive", LowLevel.CKA_DERIVE, LowLevel.CKA_DERIVE)):
        (mine,) = session.getAttributeValue(key, [private_use])
        (theirs,) = session.getAttributeValue(public, [public_use])
        uses[name] = (bool(mine), bool(theirs))
    rsa = type_ == LowLevel.CKK_RSA
    digest = hashlib.sha256(b"data").digest()
    sign = PyKCS11.Mechanism(LowLevel.CKM_SHA256_RSA_PKCS if rsa else LowLevel.CKM_ECDSA)
    data = b"data" if rsa else digest
    did = {"sign": session.verify(public, data, session.sign(key, data, sign), sign)}
    if rsa:
        oaep = PyKCS11.RSAOAEPMechanism(LowLevel.CKM_SHA256, LowLevel.CKG_MGF1_SHA256)
        ciphertext = session.encrypt(public, b"secret", oaep)
        did["decrypt"] = bytes(session.decrypt(key, ciphertext, oaep)) == b"secret"
    else:
        peer = ec.generate_private_key(ec.SECP256R1())
        point = peer.public_key().public_bytes(serialization.Encoding.X962,
                                               serialization.PublicFormat.UncompressedPoint)
        derived = session.deriveKey(key, [(LowLevel.CKA_CLASS, LowLevel.CKO_SECRET_KEY),
                                          (LowLevel.CKA_KEY_TYPE, LowLevel.CKK_GENERIC_SECRET),
                                          (LowLevel.CKA_TOKEN, False),
                                          (LowLevel.CKA_SENSITIVE, False),
                                          (LowLevel.CKA_EXTRACTABLE, True)],
                                    PyKCS11.ECDH1_DERIVE_Mechanism(point))
        (secret,) = session.getAttributeValue(derived, [LowLevel.CKA_VALUE])
        did["derive"] = len(bytes(secret)) == 32
    answer[label] = {"uses": uses, "did": did}
print(json.dumps(answer))
"""


def test_every_key_pair_agrees_and_does_what_its_flags_say(wallet):
    """The usage checks of OpenSC's p11test: the halves of a pair agree, and each key signs,
    decrypts or derives as its flags say, through the module alone."""
    output = wallet.card.client(sys.executable, "-c", "import json\n" + USES,
                                PKCS11_MODULE).stdout
    for label, found in json.loads(output).items():
        for use, (mine, theirs) in found["uses"].items():
            assert mine == theirs, (label, use)
        rsa = not wallet.identities[label].is_ec
        assert found["uses"]["decrypt"][0] == rsa and found["uses"]["derive"][0] != rsa
        assert found["did"] == ({"sign": True, "decrypt": True} if rsa
                                else {"sign": True, "derive": True}), label
