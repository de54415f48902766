"""import-certificate replaces an identity's certificate with one read from a PEM file."""
import base64

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import serialization

from conftest import PKCS11_MODULE
from identities import der, key_hash, make_certificate, make_key, place, sealed_record


@pytest.fixture
def two(card):
    keys = [make_key("p-256"), make_key("p-384")]
    place(card, [("a", keys[0], make_certificate(keys[0], "Old A"), sealed_record(keys[0])),
                 ("b", keys[1], make_certificate(keys[1], "Old B"), sealed_record(keys[1]))])
    return keys


def issued(key, common_name="Issued"):
    ca_key = make_key("p-256")
    ca = x509.Name([x509.NameAttribute(x509.NameOID.COMMON_NAME, "Test CA")])
    return make_certificate(key, common_name, issuer_key=ca_key, issuer=ca)


def pem_body(certificate):
    return base64.b64encode(der(certificate)).decode()


@pytest.mark.parametrize("layout", ["standard", "crlf", "one line", "short lines"])
def test_issued_certificate_replaces_the_old_one_and_goes_last(card, two, tmp_path, layout):
    certificate = issued(two[0])
    body = pem_body(certificate)
    lines = {
        "standard": [body[i:i + 64] for i in range(0, len(body), 64)],
        "crlf": [body[i:i + 64] for i in range(0, len(body), 64)],
        "one line": [body],
        "short lines": [body[i:i + 5] for i in range(0, len(body), 5)],
    }[layout]
    newline = "\r\n" if layout == "crlf" else "\n"
    text = newline.join(["-----BEGIN CERTIFICATE-----", *lines, "-----END CERTIFICATE-----", ""])
    (tmp_path / "issued.pem").write_text(text, newline="")
    assert card.out("import-certificate", "-f", str(tmp_path / "issued.pem")) == ""
    items = card.items()
    # The issued certificate is stored without a label; the identity keeps its key item's.
    assert [(kind, label) for kind, _, label, *_ in items] == [
        ("key", "a"), ("certificate", "b"), ("key", "b"), ("certificate", None)]
    assert items[-1][1] == key_hash(two[0])
    assert items[-1][3] == der(certificate)


def test_certificate_for_an_unknown_key(card, two, tmp_path):
    stranger = make_key("p-256")
    (tmp_path / "c.pem").write_bytes(issued(stranger).public_bytes(serialization.Encoding.PEM))
    assert card.out("import-certificate", "-f", str(tmp_path / "c.pem")) == (
        f"Error: The certificate with pubkey hash <{key_hash(stranger).hex().upper()}> "
        "does not match with any private key\n")
    assert len(card.items()) == 4


@pytest.mark.parametrize("content, line", [
    (b"-----BEGIN CERTIFICATE-----\nMII B\n-----END CERTIFICATE-----\n",
     "Error: Failed to decode base64 certificate data\n"),
    (b"-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n",
     "Error: Failed to parse certificate from data\n"),
])
def test_bad_files(card, two, tmp_path, content, line):
    (tmp_path / "bad.pem").write_bytes(content)
    assert card.out("import-certificate", "-f", str(tmp_path / "bad.pem")) == line
    assert len(card.items()) == 4


def test_missing_file_name_and_unreadable_files(card, two, tmp_path):
    assert card.out("import-certificate") == "Error: 'file' paramater is mandatory\n"
    assert card.out("import-certificate", "-f", str(tmp_path / "none.pem")).startswith("Error: ")
    (tmp_path / "binary.der").write_bytes(der(issued(two[0])))
    assert card.out("import-certificate", "-f", str(tmp_path / "binary.der")).startswith("Error: ")
    assert len(card.items()) == 4


def test_the_module_shows_the_identity_label_on_an_issued_certificate(card, two, tmp_path):
    (tmp_path / "issued.pem").write_bytes(
        issued(two[0]).public_bytes(serialization.Encoding.PEM))
    card.run("import-certificate", "-f", str(tmp_path / "issued.pem"))
    listing = card.client("pkcs11-tool", "--module", PKCS11_MODULE, "-O", "--type", "cert").stdout
    assert sorted(line.split(":", 1)[1].strip() for line in listing.splitlines()
                  if line.strip().startswith("label:")) == ["a", "b"]
