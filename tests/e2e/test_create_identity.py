"""create-identity: new keys, their self-signed certificates, items and records."""
import datetime

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec, padding
from cryptography.x509.oid import ExtendedKeyUsageOID, ExtensionOID, NameOID

KINDS = {"p-256": ("sealedKey", 256), "p-384": ("sealedKey", 384), "p-521": ("sealedKey", 521),
         "p-256-ne": ("bastionKey", 256), "p-384-ne": ("bastionKey", 384),
         "rsa-2048": ("sealedKey", 2048), "rsa-3072": ("sealedKey", 3072),
         "rsa-2048-ne": ("bastionKey", 2048), "rsa-3072-ne": ("bastionKey", 3072)}


@pytest.mark.parametrize("kind", KINDS)
def test_each_key_type_makes_a_valid_identity(card, kind):
    assert card.out("create-identity", "-l", "Mail", "-k", kind, "-CN", "Alice",
                    "-E", "alice@example.com", "-O", "Example", "-C", "DE") == ""
    items = card.items()
    rsa = kind.startswith("rsa")
    assert [(k, label) for k, _, label, *_ in items] == [("certificate", "Mail"), ("key", "Mail")]
    # Each signs; an RSA key decrypts, an EC key exchanges keys.
    assert items[1][4:] == ((1, 1, 0) if rsa else (1, 0, 1))
    hash_ = items[0][1]
    assert items[1][1] == hash_ and len(hash_) == 20

    certificate = x509.load_der_x509_certificate(items[0][3])
    record_kind, size = KINDS[kind]
    assert certificate.public_key().key_size == size
    assert certificate.version == x509.Version.v3
    assert certificate.issuer.public_bytes() == certificate.subject.public_bytes()
    assert [a.oid for a in certificate.subject] == [NameOID.COUNTRY_NAME, NameOID.ORGANIZATION_NAME,
                                                    NameOID.COMMON_NAME, NameOID.EMAIL_ADDRESS]
    assert certificate.subject.get_attributes_for_oid(NameOID.COMMON_NAME)[0].value == "Alice"
    if rsa:
        assert certificate.public_key().public_numbers().e == 65537
        certificate.public_key().verify(certificate.signature, certificate.tbs_certificate_bytes,
                                        padding.PKCS1v15(), hashes.SHA256())
    else:
        certificate.public_key().verify(certificate.signature, certificate.tbs_certificate_bytes,
                                        ec.ECDSA(hashes.SHA384()))
    lifetime = certificate.not_valid_after - certificate.not_valid_before
    assert lifetime == datetime.timedelta(days=365)
    extensions = certificate.extensions
    assert extensions.get_extension_for_oid(ExtensionOID.BASIC_CONSTRAINTS).critical
    assert extensions.get_extension_for_oid(ExtensionOID.SUBJECT_KEY_IDENTIFIER).value.digest == hash_
    usage = extensions.get_extension_for_oid(ExtensionOID.KEY_USAGE).value
    assert usage.digital_signature and usage.content_commitment and not usage.key_agreement
    assert list(extensions.get_extension_for_oid(ExtensionOID.EXTENDED_KEY_USAGE).value) == [
        ExtendedKeyUsageOID.EMAIL_PROTECTION, ExtendedKeyUsageOID.CLIENT_AUTH,
        ExtendedKeyUsageOID.CODE_SIGNING]
    assert extensions.get_extension_for_oid(ExtensionOID.SUBJECT_ALTERNATIVE_NAME).value \
        .get_values_for_type(x509.RFC822Name) == ["alice@example.com"]

    records = card.records()
    assert list(records) == [hash_]
    assert list(records[hash_]) == [record_kind]
    assert records[hash_][record_kind]["biometryProtection"] == "off"
    if record_kind == "sealedKey" and not rsa:
        wrapped = records[hash_]["sealedKey"]["wrappedPrivateKey"]
        assert len(wrapped) == {256: 178, 384: 226, 521: 280}[size]
    if record_kind == "sealedKey":
        assert records[hash_]["sealedKey"]["keyType"] == ("rsa" if rsa else "ec")


def test_default_subject_is_the_label_without_alternative_name(card):
    card.run("create-identity", "-l", "Work", "-k", "p-256")
    certificate = x509.load_der_x509_certificate(card.items()[0][3])
    assert certificate.subject.rfc4514_string() == "CN=Work"
    with pytest.raises(x509.ExtensionNotFound):
        certificate.extensions.get_extension_for_oid(ExtensionOID.SUBJECT_ALTERNATIVE_NAME)


@pytest.mark.parametrize("args, line", [
    ([], "Error: 'label' paramater is mandatory\n"),
    (["-k", "p-256"], "Error: 'label' paramater is mandatory\n"),
    (["-l", "x"], "Error: Missing or unsupported 'keyType' paramater\n"),
    (["-l", "x", "-k", "P-256"], "Error: Missing or unsupported 'keyType' paramater\n"),
])
def test_label_and_key_type_checks(card, args, line):
    assert card.out("create-identity", *args) == line
    assert card.items() == []


def test_same_label_twice_makes_two_identities(card):
    card.run("create-identity", "-l", "Same", "-k", "p-256")
    card.run("create-identity", "-l", "Same", "-k", "p-256-ne")
    hashes_ = {item[1] for item in card.items()}
    assert len(hashes_) == 2 and len(card.records()) == 2


def test_records_of_another_version_stop_the_command_before_writing(card):
    import plistlib
    card.run("delete-all-identities", stdin="no\n")
    data = plistlib.dumps({"version": 2, "keys": []}, fmt=plistlib.FMT_BINARY)
    card.sql(f"UPDATE tokens SET config_data = x'{data.hex()}'")
    assert card.out("create-identity", "-l", "x", "-k", "p-256") == "Error: dataVersionMismatch\n"
    assert card.items() == []


@pytest.mark.parametrize("kind", ["p-256", "p-256-ne"])
def test_biometry_without_terminal_refuses_and_leaves_nothing(card, kind):
    output = card.out("create-identity", "-l", "x", "-k", kind, "-prot", "bio")
    assert output.startswith("Error: User presence could not be confirmed")
    assert card.items() == []
    assert card.config_data() is None


@pytest.mark.parametrize("kind", ["p-384", "p-384-ne"])
def test_biometry_follows_the_presence_check(card, presence, kind):
    presence("pam_deny.so")
    refused = card.run_on_terminal("create-identity", "-l", "x", "-k", kind, "-prot", "bio")
    assert "Error: User presence could not be confirmed" in refused
    assert card.items() == []

    presence("pam_permit.so")
    card.run_on_terminal("create-identity", "-l", "x", "-k", kind, "-prot", "bio")
    (record,) = card.records().values()
    assert next(iter(record.values()))["biometryProtection"] == "on"
    assert "Prot" in card.out("list-identities") and " bio " in card.out("list-identities")


@pytest.mark.parametrize("kind", ["p-256", "p-256-ne"])
def test_biometry_asks_once_while_the_identity_is_made(card, presence, tmp_path, kind):
    asked = tmp_path / "asked"
    script = tmp_path / "ask.sh"
    script.write_text(f"#!/bin/sh\necho asked >> {asked}\n")
    script.chmod(0o755)
    presence(f"pam_exec.so {script}")
    card.run_on_terminal("create-identity", "-l", "x", "-k", kind, "-prot", "bio")
    assert asked.read_text().splitlines() == ["asked"]
    assert len(card.records()) == 1
