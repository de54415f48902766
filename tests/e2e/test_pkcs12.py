"""export-identity and import-identities: PKCS#12 files that standard tools open."""
import os
import subprocess

import pytest
from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.serialization import pkcs12

from identities import key_hash, make_certificate, make_key, openssl_file


def created(card, kind="p-256", label="Mail"):
    card.run("create-identity", "-l", label, "-k", kind, "-CN", label)
    return card.items()[-1][1].hex().upper()


@pytest.mark.parametrize("kind", ["p-256", "p-384", "p-521", "rsa-2048"])
def test_export_opens_with_openssl_and_cryptography(card, kind):
    hash_ = created(card, kind)
    assert card.out("export-identity", "-h", hash_.lower(), "-f", "out", "-p", "s3cret") == ""
    data = (card.home / "out.p12").read_bytes()
    key, certificate, _ = pkcs12.load_key_and_certificates(data, b"s3cret")
    assert key_hash(key).hex().upper() == hash_
    assert certificate.subject.rfc4514_string() == "CN=Mail"
    info = subprocess.run(["openssl", "pkcs12", "-legacy", "-in", "out.p12", "-passin", "pass:s3cret",
                           "-nodes", "-info"], capture_output=True, text=True, cwd=card.home)
    assert info.returncode == 0, info.stderr
    assert "MAC: sha1, Iteration 2048" in info.stderr
    assert "pbeWithSHA1And40BitRC2-CBC" in info.stderr
    assert "pbeWithSHA1And3-KeyTripleDES-CBC" in info.stderr
    assert info.stdout.count(f"localKeyID: {' '.join(hash_[i:i + 2] for i in range(0, 40, 2))}") == 2
    assert "friendlyName" not in info.stdout

    card.run("export-identity", "-h", hash_, "-f", "out.p12", "-p", "s3cret")
    assert (card.home / "out.p12").read_bytes() != data  # fresh salts every time


def test_round_trip_keeps_the_key(card):
    hash_ = created(card, "p-384", "Round")
    card.run("export-identity", "-h", hash_, "-f", "round", "-p", "")
    card.run("delete-all-identities", stdin="y\n")
    assert card.items() == []
    assert card.out("import-identities", "-f", "round.p12", "-p", "") == ""
    items = card.items()
    assert [(kind, label) for kind, _, label, *_ in items] == [("certificate", "Round"), ("key", "Round")]
    assert items[0][1].hex().upper() == hash_
    (record,) = card.records().values()
    assert len(record["sealedKey"]["wrappedPrivateKey"]) == 226


@pytest.mark.parametrize("legacy", [True, False])
def test_openssl_files_import_and_skip_on_second_import(card, tmp_path, legacy):
    keys = {"ec": make_key("p-256"), "rsa": make_key("rsa-2048")}
    certificates = {"ec": make_certificate(keys["ec"], "Bob"),
                    "rsa": make_certificate(keys["rsa"], None, email="r@example.com")}
    path = openssl_file(tmp_path, "ec", keys["ec"], certificates["ec"], "pw", legacy)
    assert card.out("import-identities", "-f", str(path), "-p", "pw") == ""
    path_rsa = openssl_file(tmp_path, "rsa", keys["rsa"], certificates["rsa"], "pw", legacy)
    card.run("import-identities", "-f", str(path_rsa), "-p", "pw")
    items = card.items()
    assert [(kind, label) for kind, _, label, *_ in items] == [
        ("certificate", "Bob"), ("key", "Bob"), ("certificate", "r@example.com"),
        ("key", "r@example.com")]
    assert items[3][4:] == (1, 1, 0)  # RSA: sign and decrypt, no key exchange
    records = card.records()
    assert records[key_hash(keys["rsa"])]["sealedKey"]["keyType"] == "rsa"

    assert card.out("import-identities", "-f", str(path), "-p", "pw") == (
        f"Skipped to import identity 'Bob' because identity with PubKey Hash: "
        f"<{key_hash(keys['ec']).hex().upper()}> already exist\n")
    assert len(card.items()) == 4

    exported = card.home / "rsa-out"
    card.run("export-identity", "-h", key_hash(keys["rsa"]).hex(), "-f", str(exported), "-p", "x")
    key, _, _ = pkcs12.load_key_and_certificates(exported.with_suffix(".p12").read_bytes(), b"x")
    assert key.private_numbers() == keys["rsa"].private_numbers()


def test_certificates_without_a_key_are_not_identities(card, tmp_path):
    keys = [make_key("p-256"), make_key("p-384")]
    certificates = [make_certificate(k, f"Person {i}") for i, k in enumerate(keys)]
    data = pkcs12.serialize_key_and_certificates(
        b"both", keys[0], certificates[0], [certificates[1]],
        serialization.BestAvailableEncryption(b"pw"))
    # The first file carries the second certificate without its key; only the second file makes
    # it an identity.
    second = pkcs12.serialize_key_and_certificates(
        b"two", keys[1], certificates[1], None, serialization.BestAvailableEncryption(b"pw"))
    (tmp_path / "one.p12").write_bytes(data)
    (tmp_path / "two.p12").write_bytes(second)
    card.run("import-identities", "-f", str(tmp_path / "one.p12"), "-p", "pw")
    card.run("import-identities", "-f", str(tmp_path / "two.p12"), "-p", "pw")
    labels = [label for _, _, label, *_ in card.items()]
    assert labels == ["Person 0", "Person 0", "Person 1", "Person 1"]


@pytest.mark.parametrize("args, line", [
    (["import-identities"], "Error: 'file' paramater is mandatory\n"),
    (["import-identities", "-f", "missing.p12"], "Error: Cannot read passphrase\n"),
    (["export-identity", "-h", "00"], "Error: 'file' paramater is mandatory\n"),
    (["export-identity", "-f", "x"], "Error: 'hash' paramater is mandatory\n"),
    (["export-identity", "-f", "x", "-h", "0"], "Error: Failed to parse pub key hash\n"),
    (["export-identity", "-f", "x", "-h", "00"], "Error: Cannot read passphrase\n"),
    (["export-identity", "-f", "x", "-h", "abcd", "-p", "p"],
     "Error: Identity with public key hash <abcd> not found\n"),
])
def test_argument_errors(card, args, line):
    assert card.out(*args) == line
    assert not (card.home / "x.p12").exists()


def test_wrong_password_and_other_files(card, tmp_path):
    key = make_key("p-256")
    path = openssl_file(tmp_path, "k", key, make_certificate(key), "right", True)
    assert card.out("import-identities", "-f", str(path), "-p", "wrong") == "Error: PKCS12 import failed\n"
    (tmp_path / "text.p12").write_text("not pkcs12")
    assert card.out("import-identities", "-f", str(tmp_path / "text.p12"), "-p", "x") == (
        "Error: PKCS12 import failed\n")
    assert card.out("import-identities", "-f", str(tmp_path / "none.p12"), "-p", "x").startswith("Error: ")
    assert card.items() == []


@pytest.mark.parametrize("kind", ["p-256-ne", "rsa-2048-ne"])
def test_hardware_bound_keys_are_refused(card, kind):
    hash_ = created(card, kind).lower()
    assert card.out("export-identity", "-h", hash_, "-f", "x", "-p", "p") == (
        f"Error: Private key with public key hash  <{hash_}> is hardware bounded and cannot be exported\n")
    assert not (card.home / "x.p12").exists()


def test_passwords_typed_at_the_terminal(card):
    hash_ = created(card)
    screen = card.run_on_terminal("export-identity", "-h", hash_, "-f", "typed",
                                  answers=[b"pa\xc3\xa9ss", b"rong"])
    assert "Enter a password which will be used to protect the exported items:" in screen
    assert "Verify password:" in screen
    assert "Error: Passwords do not match!" in screen
    assert not (card.home / "typed.p12").exists()

    # "é" typed precomposed, then as e + combining acute: canonically the same password.
    card.run_on_terminal("export-identity", "-h", hash_, "-f", "typed",
                         answers=["pa\u00e9ss".encode(), "pae\u0301ss".encode()])
    pkcs12.load_key_and_certificates((card.home / "typed.p12").read_bytes(), "pa\u00e9ss".encode())
    screen = card.run_on_terminal("import-identities", "-f", "typed.p12", answers=["pa\u00e9ss".encode()])
    assert "Enter PKCS12 file password:" in screen and "Skipped to import identity 'Mail'" in screen


def test_no_private_scalar_in_clear_under_the_data_folder(card):
    hash_ = created(card, "p-256")
    card.run("export-identity", "-h", hash_, "-f", "k", "-p", "p")
    key, _, _ = pkcs12.load_key_and_certificates((card.home / "k.p12").read_bytes(), b"p")
    scalar = key.private_numbers().private_value.to_bytes(32, "big")
    for root, _, files in os.walk(card.folder):
        for name in files:
            assert scalar not in (card.folder / root / name).read_bytes(), name
