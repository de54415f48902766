"""Writes a few stored-key configuration data files as seeds for decode_stored_keys_fuzzer.

Usage: python3 make_seed_corpus.py <folder> [<keyloft>]
With the tool, one more seed holds the data of a card it made, laid out with room for records
added in place.
"""
import os
import plistlib
import sqlite3
import subprocess
import sys
import tempfile


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


SEEDS = {
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
                           check=True, capture_output=True)
        db = sqlite3.connect(os.path.join(home, "keyloft", "tokens.db"))
        return db.execute("SELECT config_data FROM tokens").fetchone()[0]


folder = sys.argv[1]
os.makedirs(folder, exist_ok=True)
for name, root in SEEDS.items():
    with open(os.path.join(folder, name + ".bplist"), "wb") as seed:
        plistlib.dump(root, seed, fmt=plistlib.FMT_BINARY, sort_keys=False)
if len(sys.argv) > 2:
    with open(os.path.join(folder, "with_room.bplist"), "wb") as seed:
        seed.write(card_data(sys.argv[2]))
