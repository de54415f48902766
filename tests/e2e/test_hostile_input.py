"""Input an attacker controls: symbolic links planted where the tool writes its files, and
control characters in the names of an imported PKCS#12 file, shown in the listing and published
through the PKCS#11 module."""
import json
import os
import pathlib
import stat
import subprocess
import sys

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.serialization import pkcs12

from card_invariants import listed_rows
from conftest import PKCS11_MODULE
from identities import key_hash, make_certificate, make_key
from pkcs12_bundle import pkcs12_bundle

FORGED = "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIOMqqnkVzrm0SdG6UOoqKLsabgH5C9okWi0dh2l9GKJl attacker"
NAMES = [
    f"work\n{FORGED}",
    "esc\x1b[31mred\x1b[0m",
    "bell\x07\x07",
    "del\x7fete",
    "next\u0085line",
    "c1\u009b2J and tab\t",
    "plain é",
]


def escaped(text):
    return "".join(f"\\x{ord(c):02X}" if ord(c) < 0x20 or 0x7F <= ord(c) <= 0x9F else c
                   for c in text)


def without_controls(text):
    return "".join(c for c in text if not (ord(c) < 0x20 or 0x7F <= ord(c) <= 0x9F))


@pytest.fixture
def created(card):
    card.run("create-identity", "-l", "Mail", "-k", "p-256", "-CN", "Mail")
    return card.items()[-1][1].hex()


def export(card, hash_, name):
    return card.out("export-identity", "-h", hash_, "-f", name, "-p", "pw")


def csr(card, hash_, name):
    return card.out("create-csr", "-h", hash_, "-f", name, "-CN", "Mail")


def check_p12(path, hash_):
    result = subprocess.run(["openssl", "pkcs12", "-legacy", "-in", path, "-passin", "pass:pw",
                             "-nodes", "-noout"], capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
    key, _, _ = pkcs12.load_key_and_certificates(path.read_bytes(), b"pw")
    assert key_hash(key).hex() == hash_
    assert stat.S_IMODE(path.stat().st_mode) == 0o600


def check_csr(path, hash_):
    subprocess.run(["openssl", "req", "-verify", "-noout", "-in", path], check=True,
                   capture_output=True)
    request = x509.load_pem_x509_csr(path.read_bytes())
    assert key_hash(request).hex() == hash_


@pytest.mark.parametrize("write, suffix, check", [
    pytest.param(export, ".p12", check_p12, id="export-identity"),
    pytest.param(csr, ".csr", check_csr, id="create-csr")])
@pytest.mark.parametrize("target_exists", [True, False], ids=["to-a-file", "dangling"])
def test_a_planted_symlink_is_replaced_not_followed(card, created, write, suffix, check,
                                                   target_exists):
    outputs, elsewhere = card.home / "outputs", card.home / "elsewhere"
    outputs.mkdir()
    elsewhere.mkdir()
    target = elsewhere / "precious"
    if target_exists:
        target.write_bytes(b"precious\n")
        target.chmod(0o644)
    (outputs / f"out{suffix}").symlink_to(target)

    assert write(card, created, str(outputs / "out")) == ""
    written = outputs / f"out{suffix}"
    assert not written.is_symlink() and written.is_file()
    check(written, created)
    assert os.listdir(outputs) == [f"out{suffix}"]  # no temporary file left behind
    if target_exists:
        assert target.read_bytes() == b"precious\n"
        assert stat.S_IMODE(target.stat().st_mode) == 0o644
    else:
        assert os.listdir(elsewhere) == []


def test_an_existing_readable_export_ends_private(card, created):
    old = card.home / "out.p12"
    old.write_bytes(b"old")
    old.chmod(0o644)
    assert export(card, created, "out") == ""
    check_p12(old, created)


@pytest.fixture
def hostile(card, tmp_path):
    """A card holding one identity per name, imported from one PKCS#12 file whose certificates'
    common names and bags' friendly names carry the name as given."""
    keys = [make_key("p-256") for _ in NAMES]
    pairs = [(key, make_certificate(key, name)) for key, name in zip(keys, NAMES)]
    path = tmp_path / "hostile.p12"
    path.write_bytes(pkcs12_bundle(pairs, "pw", friendly_names=NAMES))
    assert card.out("import-identities", "-f", str(path), "-p", "pw") == ""
    return {key_hash(key).hex().upper(): (name, certificate)
            for (key, certificate), name in zip(pairs, NAMES)}


def test_listing_escapes_control_characters(card, hostile):
    output = card.out("list-identities")
    assert output.count("\n") == 1 + len(hostile)
    rows = listed_rows(output)
    assert len({len(line) for line in output.split("\n")[:-1]}) == 1  # the table stays aligned
    assert {row[1]: (row[3], row[4]) for row in rows} == {
        hash_: (escaped(name), escaped(name)) for hash_, (name, _) in hostile.items()}
    # The card keeps the names as they were given.
    assert sorted(label for kind, _, label, *_ in card.items() if kind == "key") == sorted(NAMES)


LABELS = """
import json, sys
import PyKCS11
from PyKCS11 import LowLevel
library = PyKCS11.PyKCS11Lib()
library.load(sys.argv[1])
session = library.openSession(library.getSlotList(tokenPresent=True)[0])
objects = session.findObjects()
print(json.dumps([[int(cls), bytes(id_).hex().upper(), label] for cls, id_, label in (
    session.getAttributeValue(o, [LowLevel.CKA_CLASS, LowLevel.CKA_ID, LowLevel.CKA_LABEL])
    for o in objects)]))
"""


@pytest.mark.skipif(not pathlib.Path(PKCS11_MODULE).exists(), reason="no PKCS#11 module")
def test_pkcs11_labels_drop_control_characters(card, hostile):
    objects = json.loads(card.client(sys.executable, "-c", LABELS, PKCS11_MODULE).stdout)
    assert len(objects) == 3 * len(hostile)
    assert sorted((id_, label) for _, id_, label in objects) == sorted(
        (hash_, without_controls(name)) for hash_, (name, _) in hostile.items() for _ in range(3))


@pytest.mark.skipif(not pathlib.Path(PKCS11_MODULE).exists(), reason="no PKCS#11 module")
def test_ssh_keygen_prints_one_line_per_key_and_no_forged_one(card, hostile):
    output = card.client("ssh-keygen", "-D", PKCS11_MODULE).stdout
    lines = output.splitlines()
    # The forged key may survive inside a label, never as a line of its own.
    assert len(lines) == len(hostile), output
    assert sorted(" ".join(line.split()[:2]) for line in lines) == sorted(
        certificate.public_key().public_bytes(serialization.Encoding.OpenSSH,
                                              serialization.PublicFormat.OpenSSH).decode()
        for _, certificate in hostile.values())
