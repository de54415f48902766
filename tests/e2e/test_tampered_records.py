"""Stored-key records that hold another key than the one their hash names (swapped or copied by
hand, or filed under another key's certificate): export-identity, create-csr and the PKCS#11 module
refuse that identity's key, and the other identities keep working."""
import hashlib
import json
import plistlib
import sys

import pytest
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec, utils
from cryptography.hazmat.primitives.serialization import pkcs12

from conftest import PKCS11_MODULE
from identities import der, key_hash, make_certificate, make_key
from test_pkcs11 import identities_of

MISMATCH = "Error: Stored key not found: the key stored under this hash has another public key\n"
DIGEST = hashlib.sha256(b"signed through the module").digest()

SIGN_EVERY_KEY = f"""
import json, PyKCS11
from PyKCS11.LowLevel import *
library = PyKCS11.PyKCS11Lib()
library.load({PKCS11_MODULE!r})
session = library.openSession(library.getSlotList()[0])
answers = {{}}
for key in session.findObjects([(CKA_CLASS, CKO_PRIVATE_KEY)]):
    (id_,) = session.getAttributeValue(key, [CKA_ID])
    try:
        answers[bytes(id_).hex()] = bytes(session.sign(
            key, bytes.fromhex({DIGEST.hex()!r}), PyKCS11.Mechanism(CKM_ECDSA))).hex()
    except PyKCS11.PyKCS11Error as error:
        answers[bytes(id_).hex()] = PyKCS11.CKR[error.value]
print(json.dumps(answers))
"""


def write_records(card, records):
    pairs = [value for pair in records.items() for value in pair]
    with card.db_rw() as db:
        db.execute("UPDATE tokens SET config_data = ? WHERE instance = 'user'",
                   (plistlib.dumps({"version": 1, "keys": pairs}, fmt=plistlib.FMT_BINARY),))


# Each changes identities a and b of the card and answers the identities that must now fail, as
# (the hash the tool is given, the id of the module's key object).
def swapped(card, records, a, b):
    records[a], records[b] = records[b], records[a]
    return [(a, a), (b, b)]


def duplicated(card, records, a, b):
    records[a] = records[b]
    return [(a, a)]


def foreign_certificate(card, records, a, b):
    # a's items carry another key's certificate, and a's record is filed under that key's hash,
    # where every lookup by the certificate finds it.
    other = make_key("p-256")
    card.sql(f"UPDATE items SET certificate = x'{der(make_certificate(other, 'A')).hex()}'"
             f" WHERE object_id = x'{a.hex()}'")
    records[key_hash(other)] = records.pop(a)
    return [(key_hash(other), a)]


@pytest.mark.parametrize("tamper", [swapped, duplicated, foreign_certificate])
def test_a_record_of_another_key_fails_its_identity_alone(card, tmp_path, tamper):
    for label in "ABC":
        card.run("create-identity", "-l", label, "-k", "p-256", "-CN", label)
    ids = {label: bytes.fromhex(identity.id) for label, identity in identities_of(card).items()}
    records = card.records()
    bad = tamper(card, records, ids["A"], ids["B"])
    write_records(card, records)
    bad_ids = {object_id for _, object_id in bad}

    for typed, _ in bad:
        for command, output in (("export-identity", "bad.p12"), ("create-csr", "bad.csr")):
            assert card.out(command, "-h", typed.hex(), "-f", str(tmp_path / output),
                            "-p", "pw") == MISMATCH, command
            assert not (tmp_path / output).exists()
    for good in set(ids.values()) - bad_ids:
        assert card.out("export-identity", "-h", good.hex(), "-f", str(tmp_path / "good"),
                        "-p", "pw") == ""
        key, certificate, _ = pkcs12.load_key_and_certificates(
            (tmp_path / "good.p12").read_bytes(), b"pw")
        assert key_hash(key) == key_hash(certificate) == good

    answers = json.loads(card.client(sys.executable, "-c", SIGN_EVERY_KEY).stdout)
    certificates = {bytes.fromhex(i.id): i.certificate for i in identities_of(card).values()}
    assert set(answers) == {object_id.hex() for object_id in ids.values()}
    for object_id, answer in answers.items():
        if bytes.fromhex(object_id) in bad_ids:
            assert answer == "CKR_DEVICE_ERROR", object_id
            continue
        signature = bytes.fromhex(answer)
        half = len(signature) // 2
        certificates[bytes.fromhex(object_id)].public_key().verify(
            utils.encode_dss_signature(int.from_bytes(signature[:half], "big"),
                                       int.from_bytes(signature[half:], "big")),
            DIGEST, ec.ECDSA(utils.Prehashed(hashes.SHA256())))
