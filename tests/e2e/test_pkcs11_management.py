"""The card managed through the module with real tools (pkcs11-tool, GnuTLS's p11tool, NSS), and
what they make seen by keyloft, and the reverse."""
import hashlib
import json
import pathlib
import re
import shutil
import subprocess
import sys

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, utils
from cryptography.hazmat.primitives.serialization import pkcs12
from cryptography.x509.oid import NameOID

from conftest import PKCS11_MODULE, PKCS11_PRELOAD
from test_pkcs11 import identities_of, listed_objects, tool, wallet  # noqa: F401 (the fixture)
from test_pkcs11_lifecycle import issue, nss_database

GNUTLS = dict(GNUTLS_PIN="0000")  # p11tool asks for a PIN it does not need; any is taken
SHM_OPEN_REFUSED = pathlib.Path(__file__).with_name("shm_open_refused.c")


def listing(card):
    """keyloft list-identities as {label: (type, hash, protection)}."""
    rows = card.out("list-identities").splitlines()[1:]
    return {row.split()[3]: tuple(row.split()[:3]) for row in rows}


@pytest.mark.parametrize("key_type, curve, listed", [
    ("EC:secp384r1", "06052b81040022", ("p-384", "none")),
    ("EC:prime256v1", "06082a8648ce3d030107", ("p-256", "none")),
    ("EC:secp521r1", "06052b81040023", ("p-521", "none")),
    ("rsa:2048", None, ("rsa-2048", "none")),
    ("rsa:3072", None, ("rsa-3072", "none")),
])
def test_pkcs11_tool_generates_identities_the_tool_lists(card, key_type, curve, listed):
    tool(card, "--keypairgen", "--key-type", key_type, "--label", "Generated")
    kind, hash_, protection = listing(card)["Generated"]
    assert (kind, protection) == listed
    objects = listed_objects(tool(card, "-O").stdout)
    assert {o["heading"].split(";")[0] for o in objects} == {
        "Certificate Object", "Public Key Object", "Private Key Object"}
    assert {(o["label"], o["ID"]) for o in objects} == {("Generated", hash_.lower())}
    assert [o["EC_PARAMS"] for o in objects if "EC_PARAMS" in o] == ([curve] if curve else [])
    # The record is the tool's own: it signs a request with the key.
    card.run("create-csr", "-h", hash_, "-f", str(card.home / "generated.csr"), "-CN", "G")
    request = x509.load_pem_x509_csr((card.home / "generated.csr").read_bytes())
    assert request.is_signature_valid


@pytest.mark.parametrize("label", ["Smith; J|r", None])
def test_the_certificate_made_is_named_after_the_label(card, label):
    tool(card, "--keypairgen", "--key-type", "EC:prime256v1", *(["--label", label] if label else []))
    certificate_item, key_item = card.items()
    name = label or certificate_item[1].hex().upper()
    assert certificate_item[2] == key_item[2] == name
    certificate = x509.load_der_x509_certificate(certificate_item[3])
    assert [(a.oid, a.value) for a in certificate.subject] == [(NameOID.COMMON_NAME, name)]


def test_non_extractable_keys_go_into_the_key_processor(card, tmp_path):
    # pkcs11-tool cannot ask for a non-extractable key; a PyKCS11 client can.
    script = tmp_path / "generate.py"
    script.write_text(f"""
import PyKCS11
from PyKCS11.LowLevel import *
library = PyKCS11.PyKCS11Lib()
library.load({PKCS11_MODULE!r})
session = library.openSession(library.getSlotList()[0], CKF_SERIAL_SESSION | CKF_RW_SESSION)
session.generateKeyPair(
    [(CKA_TOKEN, True), (CKA_EC_PARAMS, bytes.fromhex("06082a8648ce3d030107"))],
    [(CKA_TOKEN, True), (CKA_LABEL, "Bound"), (CKA_EXTRACTABLE, False), (CKA_DERIVE, False)],
    mecha=PyKCS11.Mechanism(CKM_EC_KEY_PAIR_GEN))
""")
    card.client(sys.executable, str(script))
    kind, hash_, protection = listing(card)["Bound"]
    assert kind == "p-256-ne"
    (private,) = [o for o in listed_objects(tool(card, "-O").stdout)
                  if o["heading"].startswith("Private Key")]
    assert private["Usage"] == "sign"
    assert "never extractable" in private["Access"]


@pytest.fixture(scope="module")
def shm_open_refused(tmp_path_factory):
    library = tmp_path_factory.mktemp("shim") / "shm_open_refused.so"
    subprocess.run(["cc", "-Wall", "-Werror", "-shared", "-fPIC", "-o", library, SHM_OPEN_REFUSED,
                    "-ldl"], check=True)
    return library


def test_a_key_pair_committed_is_answered_though_reading_it_back_fails(card, shm_open_refused):
    card.run("list-identities")  # a closed store: the module reads it first after the change
    digest = hashlib.sha256(b"made while the disk was full").digest()
    script = f"""
import json, PyKCS11
from PyKCS11.LowLevel import *
library = PyKCS11.PyKCS11Lib()
library.load({PKCS11_MODULE!r})
session = library.openSession(library.getSlotList()[0], CKF_SERIAL_SESSION | CKF_RW_SESSION)
public, private = session.generateKeyPair(
    [(CKA_TOKEN, True), (CKA_EC_PARAMS, bytes.fromhex("06082a8648ce3d030107"))],
    [(CKA_TOKEN, True), (CKA_LABEL, "Full")], mecha=PyKCS11.Mechanism(CKM_EC_KEY_PAIR_GEN))
ids = [bytes(session.getAttributeValue(key, [CKA_ID])[0]).hex() for key in (public, private)]
signature = session.sign(private, bytes.fromhex({digest.hex()!r}), PyKCS11.Mechanism(CKM_ECDSA))
print(json.dumps([ids, bytes(signature).hex()]))
"""
    env = card.client_env()
    env["LD_PRELOAD"] = ":".join(filter(None, [env.get("LD_PRELOAD"), str(shm_open_refused)]))
    result = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True,
                            cwd=card.home, env=env, timeout=120)
    assert "shm open refused" in result.stderr, result.stderr
    assert result.returncode == 0, result.stderr
    ids, signature = json.loads(result.stdout)
    identity = identities_of(card)["Full"]
    assert ids == [identity.id, identity.id]
    half = len(signature) // 2
    identity.public_key.verify(
        utils.encode_dss_signature(int(signature[:half], 16), int(signature[half:], 16)),
        digest, ec.ECDSA(utils.Prehashed(hashes.SHA256())))


def test_p11tool_generates_and_relabels(card, key_processor):
    if key_processor == "tpm" and PKCS11_PRELOAD:
        # With the sanitizer runtime preloaded into p11tool beside the TPM's D-Bus client threads,
        # glibc's locale lock ends up unbalanced and p11-kit's destructor waits on it forever at
        # exit, after the key is made. Unsanitized builds pass this test with the TPM.
        pytest.skip("p11tool hangs at exit under the preloaded sanitizer with the TPM's D-Bus client")
    card.client("p11tool", "--provider", PKCS11_MODULE, "--generate-rsa", "--bits", "2048",
                "--label", "GnuTLSRsa", "pkcs11:token=keyloft", stdin="", **GNUTLS)
    assert listing(card)["GnuTLSRsa"][0] == "rsa-2048"
    card.client("p11tool", "--provider", PKCS11_MODULE, "--generate-ecc", "--curve",
                "secp256r1", "--label", "GnuTLS", "pkcs11:token=keyloft", stdin="", **GNUTLS)
    kind, hash_, _ = listing(card)["GnuTLS"]
    assert kind == "p-256"
    card.client("p11tool", "--provider", PKCS11_MODULE, "--set-label", "Renamed",
                "pkcs11:token=keyloft;object=GnuTLS;type=private", stdin="", **GNUTLS)
    assert listing(card)["Renamed"][1] == hash_
    assert {o["label"] for o in listed_objects(tool(card, "-O").stdout)} == {"Renamed", "GnuTLSRsa"}


def test_issued_certificate_written_by_id_replaces_the_self_signed_one(card):
    tool(card, "--keypairgen", "--key-type", "EC:prime256v1", "--label", "Web")
    _, hash_, _ = listing(card)["Web"]
    card.run("create-csr", "-h", hash_, "-f", str(card.home / "web.csr"), "-CN", "web.example")
    issued = issue(card.home / "web.csr")
    (card.home / "web.der").write_bytes(issued.public_bytes(serialization.Encoding.DER))
    tool(card, "--write-object", str(card.home / "web.der"), "--type", "cert", "--id",
         hash_.lower())
    assert identities_of(card)["Web"].certificate == issued
    # A certificate under another key's id is refused.
    other = card.client("pkcs11-tool", "--module", PKCS11_MODULE, "--write-object",
                        str(card.home / "web.der"), "--type", "cert", "--id", "00" * 20,
                        check=False)
    assert other.returncode != 0
    assert len(identities_of(card)) == 1


def test_pkcs11_tool_deletes_an_identity_with_its_key(card):
    card.run("create-identity", "-l", "Gone", "-k", "p-256", "-CN", "Gone")
    card.run("create-identity", "-l", "Kept", "-k", "p-256", "-CN", "Kept")
    hash_ = listing(card)["Gone"][1].lower()
    refused = card.client("pkcs11-tool", "--module", PKCS11_MODULE, "--delete-object", "--type",
                          "cert", "--id", hash_, check=False)
    assert refused.returncode != 0 and "Gone" in listing(card)
    tool(card, "--delete-object", "--type", "privkey", "--id", hash_)
    assert list(listing(card)) == ["Kept"]
    assert list(card.records()) == [bytes.fromhex(listing(card)["Kept"][1])]


def test_generated_wrapped_key_exports_with_the_tool(card, tmp_path):
    tool(card, "--keypairgen", "--key-type", "EC:prime256v1", "--label", "Export")
    _, hash_, _ = listing(card)["Export"]
    card.run_on_terminal("export-identity", "-h", hash_, "-f", str(tmp_path / "export"),
                         answers=[b"secret", b"secret"])
    key, certificate, _ = pkcs12.load_key_and_certificates(
        (tmp_path / "export.p12").read_bytes(), b"secret")
    assert certificate == identities_of(card)["Export"].certificate
    assert key.public_key().public_numbers() == certificate.public_key().public_numbers()


@pytest.mark.skipif(shutil.which("certutil") is None, reason="NSS tools are not installed")
def test_nss_shows_a_changed_label(card, tmp_path):
    card.run("create-identity", "-l", "Before", "-k", "p-256", "-CN", "Before")
    database = nss_database(card, tmp_path / "nss")
    card.client("certutil", "--rename", "-d", database, "-n", "keyloft:Before", "--new-n",
                "After")
    listed = card.client("certutil", "-L", "-d", database, "-h", "all").stdout
    assert re.search(r"^keyloft:After\s", listed, re.M), listed
    assert "After" in listing(card)


def test_pkcs11_tool_test_suite_passes_with_login(wallet):
    result = tool(wallet.card, "--test", "--login", "--pin", "0000")
    assert "No errors" in result.stdout, result.stdout
