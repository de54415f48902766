"""create-csr writes PKCS#10 requests that openssl verifies; the issued certificate comes back in
through import-certificate."""
import subprocess

import pytest
from cryptography import x509
from cryptography.x509.oid import NameOID

from identities import key_hash, make_certificate, make_key, place


def openssl(*args, cwd):
    return subprocess.run(["openssl", *args], capture_output=True, text=True, check=True, cwd=cwd).stdout


def created(card, kind="p-256", label="Mail"):
    card.run("create-identity", "-l", label, "-k", kind)
    return card.items()[-1][1].hex()


@pytest.mark.parametrize("kind", ["p-256", "p-384", "p-521", "p-256-ne", "p-384-ne"])
def test_requests_verify_with_openssl(card, kind):
    hash_ = created(card, kind)
    assert card.out("create-csr", "-h", hash_, "-f", "req", "-CN", "Alice", "-E", "a@example.com",
                    "-OU", "Unit", "-O", "Org", "-L", "City", "-ST", "State", "-C", "DE") == ""
    text = (card.home / "req.csr").read_text()
    lines = text.split("\n")
    assert lines[0] == "-----BEGIN CERTIFICATE REQUEST-----"
    assert lines[-2:] == ["-----END CERTIFICATE REQUEST-----", ""]
    assert all(len(line) == 64 for line in lines[1:-3]) and 1 <= len(lines[-3]) <= 64
    assert "verify OK" in subprocess.run(["openssl", "req", "-in", "req.csr", "-verify", "-noout"],
                                         capture_output=True, text=True, cwd=card.home).stderr
    request = x509.load_pem_x509_csr(text.encode())
    assert [a.oid for a in request.subject] == [
        NameOID.COMMON_NAME, NameOID.EMAIL_ADDRESS, NameOID.ORGANIZATIONAL_UNIT_NAME,
        NameOID.ORGANIZATION_NAME, NameOID.LOCALITY_NAME, NameOID.STATE_OR_PROVINCE_NAME,
        NameOID.COUNTRY_NAME]
    usage = request.extensions.get_extension_for_class(x509.KeyUsage).value
    assert usage.digital_signature and usage.key_agreement and usage.decipher_only


def test_items_without_a_stored_key_are_not_an_identity(card):
    key = make_key("p-256")
    place(card, [("r", key, make_certificate(key), None)])
    assert card.out("create-csr", "-h", key_hash(key).hex(), "-f", "r") == (
        "Error: No identity found for hash: <hash>\n")
    assert not (card.home / "r.csr").exists()


@pytest.mark.parametrize("name, written", [("req", "req.csr"), ("req.csr", "req.csr"),
                                           ("a.csr.txt", "a.csr.txt.csr"), ("req.CSR", "req.CSR.csr")])
def test_file_name_suffix(card, name, written):
    hash_ = created(card)
    card.run("create-csr", "-h", hash_, "-f", name, "-O", "Only")
    assert (card.home / written).exists()
    request = x509.load_pem_x509_csr((card.home / written).read_bytes())
    assert request.subject.rfc4514_string() == "O=Only"


@pytest.mark.parametrize("args, line", [
    ([], "Error: 'file' paramater is mandatory\n"),
    (["-f", "x"], "Error: 'hash' paramater is mandatory\n"),
    (["-f", "x", "-h", "xyz"], "Error: Failed to parse pub key hash\n"),
    (["-f", "x", "-h", "00" * 20], "Error: No identity found for hash: <hash>\n"),
])
def test_argument_errors_write_nothing(card, args, line):
    assert card.out("create-csr", *args) == line
    assert not (card.home / "x.csr").exists()


def test_issued_certificate_round_trip(card, tmp_path):
    hash_ = created(card, "p-256", "Mail")
    card.run("create-csr", "-h", hash_.upper(), "-f", str(tmp_path / "req"), "-CN", "Alice Issued")
    openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
            "-keyout", "ca.key", "-out", "ca.pem", "-subj", "/CN=Test CA", "-days", "30", cwd=tmp_path)
    openssl("x509", "-req", "-in", "req.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-days", "30",
            "-out", "issued.pem", cwd=tmp_path)
    assert card.out("import-certificate", "-f", str(tmp_path / "issued.pem")) == ""
    items = card.items()
    # The issued certificate is stored without a label; the key item names the identity.
    assert [(kind, label) for kind, _, label, *_ in items] == [("key", "Mail"), ("certificate", None)]
    row = card.out("list-identities").split("\n")[1]
    assert "Alice Issued" in row and row.rstrip().endswith("YES")
