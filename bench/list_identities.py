#!/usr/bin/env python3
"""Times `keyloft list-identities` and a PKCS#11 search over all objects on cards of 100, 1,000
and 10,000 identities, `keyloft create-identity` on an empty and on a full card (300 in a row on
each), and `keyloft import-identities` of a PKCS#12 file of 1,000 identities.

The cards are filled directly through SQLite and plistlib (certificates made with Python's
cryptography), so that filling a large card does not depend on the tool's own speed. The PKCS#11
search runs in a client that keeps the module loaded; "after relabel" times
the search that follows the relabelling of the last identity (the module reads the card again),
"after append" the one that follows an identity appended as the tool appends one (its rows, and
then also a record for its key in the configuration data), "unchanged" one that follows no
write.

Usage: bench/list_identities.py [path/to/keyloft [path/to/libkeyloft-pkcs11.so]]
       (default: build/keyloft and the module built beside it)
"""
import datetime
import json
import os
import pathlib
import plistlib
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import NameOID

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "e2e"))

from pkcs12_bundle import pkcs12_bundle  # noqa: E402

KEYLOFT = sys.argv[1] if len(sys.argv) > 1 else str(ROOT / "build" / "keyloft")
MODULE = sys.argv[2] if len(sys.argv) > 2 else str(
    pathlib.Path(KEYLOFT).resolve().parent / "pkcs11" / "libkeyloft-pkcs11.so")
SIZES = (100, 1000, 10000)
RUNS = 5
CREATES = 300
IMPORTED = 1000

# Runs in its own process with the card's environment, so the module finds that card. Calls the
# module through ctypes, so that the time is the module's, not a Python wrapper's per object.
SEARCH = """
import ctypes, json, plistlib, sqlite3, sys, time
ulong = ctypes.c_ulong
module = ctypes.CDLL(sys.argv[1])
assert module.C_Initialize(None) == 0
slots, count = (ulong * 8)(), ulong(8)
assert module.C_GetSlotList(ctypes.c_ubyte(1), slots, ctypes.byref(count)) == 0
session = ulong()
assert module.C_OpenSession(slots[0], ulong(4), None, None, ctypes.byref(session)) == 0
handles = (ulong * 4096)()
db = sqlite3.connect(sys.argv[2])
# Changes to the card as the tool makes them: the last identity is relabelled (each time to a new
# label: an UPDATE that changes nothing leaves the store's data version as it was), and an identity
# is appended: a certificate row and a key row after the last, under an object id of its own, with
# or without a record of its own in the configuration data. It reuses the last identity's
# certificate, so its key finds the stored key every identity here uses.


def append(serial, with_record):
    last, object_id, certificate = db.execute(
        "SELECT position, object_id, certificate FROM items ORDER BY position DESC").fetchone()
    object_id = (0xFFFF0000 + serial).to_bytes(4, "big") + object_id[4:]
    rows = [(last + 1, "certificate", object_id, f"appended {serial}", certificate, None, None,
             None),
            (last + 2, "key", object_id, f"appended {serial}", certificate, 1, 0, 1)]
    db.executemany("INSERT INTO items VALUES ('org.keyloft.token', 'user', ?, ?, ?, ?, ?, ?, ?, ?)",
                   rows)
    if with_record:
        (data,) = db.execute("SELECT config_data FROM tokens WHERE instance = 'user'").fetchone()
        data = plistlib.loads(data)
        data["keys"] += [object_id, {"sealedKey": {
            "pubKeyHash": object_id, "keyType": "ec", "wrappedPrivateKey": bytes(178),
            "wrappingPrivateKeyData": bytes(80), "biometryProtection": "off"}}]
        db.execute("UPDATE tokens SET config_data = ? WHERE instance = 'user'",
                   (plistlib.dumps(data, fmt=plistlib.FMT_BINARY),))


def search():
    assert module.C_FindObjectsInit(session, None, ulong(0)) == 0
    found, got = 0, ulong(1)
    while got.value:
        assert module.C_FindObjects(session, handles, ulong(len(handles)), ctypes.byref(got)) == 0
        found += got.value
    assert module.C_FindObjectsFinal(session) == 0
    return found


def timed(kind):
    start = time.perf_counter()
    found = search()
    samples[kind].append(time.perf_counter() - start)
    return found


samples = {"relabelled": [], "unchanged": [], "appended": [], "appended with record": []}
objects = search()
for run in range(int(sys.argv[3])):
    with db:
        db.execute("UPDATE items SET label = ? WHERE position >= (SELECT max(position) - 1"
                   " FROM items)", (f"relabelled {run}",))
    assert timed("relabelled") == objects
    assert timed("unchanged") == objects
    for serial, kind in enumerate(("appended", "appended with record"), start=2 * run):
        with db:
            append(serial, kind == "appended with record")
        # The appended identity brings a certificate and its key pair.
        objects += 3
        assert timed(kind) == objects
module.C_CloseSession(session)
module.C_Finalize(None)
print(json.dumps({"objects": objects, **samples}))
"""


def env_for(home):
    return dict(os.environ, HOME=str(home), XDG_DATA_HOME=str(home / "data"), LC_ALL="C.UTF-8")


def run(home, *args):
    return subprocess.run([KEYLOFT, *args], env=env_for(home), capture_output=True, text=True,
                          check=True, stdin=subprocess.DEVNULL)


def identity_certificate(index, key):
    name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, f"Person {index}")])
    now = datetime.datetime.now(datetime.timezone.utc)
    return (x509.CertificateBuilder().subject_name(name).issuer_name(name)
            .public_key(key.public_key()).serial_number(index + 1)
            .not_valid_before(now).not_valid_after(now + datetime.timedelta(days=365))
            .sign(key, hashes.SHA256()))


def identity(index, key):
    der = identity_certificate(index, key).public_bytes(serialization.Encoding.DER)
    point = key.public_key().public_bytes(serialization.Encoding.X962,
                                          serialization.PublicFormat.UncompressedPoint)
    digest = hashes.Hash(hashes.SHA1())
    digest.update(point)
    return der, digest.finalize()


def fill(home, count):
    run(home, "delete-all-identities")  # creates the store and the user token
    key = ec.generate_private_key(ec.SECP256R1())  # one key: the listing cost does not depend on it
    rows, pairs = [], []
    for index in range(count):
        der, hash_ = identity(index, key)
        if index == 0:
            # The module finds a key's record by the hash of the certificate's key, the same for
            # every identity here: one more record under it gives each its private key object.
            pairs += [hash_, {"sealedKey": {"pubKeyHash": hash_, "keyType": "ec",
                                            "wrappedPrivateKey": bytes(178),
                                            "wrappingPrivateKeyData": bytes(80),
                                            "biometryProtection": "off"}}]
        # Distinct object ids and record keys, as on a real card.
        hash_ = index.to_bytes(4, "big") + hash_[4:]
        label = f"identity {count - index:05d}"
        rows.append(("certificate", hash_, label, der, None, None, None))
        rows.append(("key", hash_, label, der, 1, 0, 1))
        pairs += [hash_, {"sealedKey": {"pubKeyHash": hash_, "keyType": "ec",
                                        "wrappedPrivateKey": bytes(178),
                                        "wrappingPrivateKeyData": bytes(80),
                                        "biometryProtection": "off"}}]
    db = sqlite3.connect(home / "data" / "keyloft" / "tokens.db")
    with db:
        db.executemany(
            "INSERT INTO items VALUES ('org.keyloft.token', 'user', ?, ?, ?, ?, ?, ?, ?, ?)",
            [(i, *row) for i, row in enumerate(rows)])
        db.execute("UPDATE tokens SET config_data = ? WHERE instance = 'user'",
                   (plistlib.dumps({"version": 1, "keys": pairs}, fmt=plistlib.FMT_BINARY),))
    db.close()


def timed(home, *args, runs=RUNS):
    samples = []
    for _ in range(runs):
        start = time.perf_counter()
        result = run(home, *args)
        samples.append(time.perf_counter() - start)
        assert not result.stdout.startswith("Error:"), result.stdout
    return statistics.median(samples), min(samples)


def create_times(home, runs):
    samples = []
    for _ in range(runs):
        start = time.perf_counter()
        run(home, "create-identity", "-l", "bench", "-k", "p-256")
        samples.append(time.perf_counter() - start)
    return samples


def searched(home, count):
    """Median seconds of a search over all objects after a relabel, without a change, and after
    an append."""
    result = subprocess.run([sys.executable, "-c", SEARCH, MODULE,
                             str(home / "data" / "keyloft" / "tokens.db"), str(RUNS)],
                            env=env_for(home), capture_output=True, text=True, check=True)
    samples = json.loads(result.stdout)
    assert samples["objects"] == 3 * (count + 2 * RUNS), samples["objects"]
    return tuple(statistics.median(samples[kind])
                 for kind in ("relabelled", "appended", "appended with record", "unchanged"))


def bundle(folder, count):
    """A PKCS#12 file of count fresh P-256 identities, password "pw"."""
    pairs = []
    for index in range(count):
        key = ec.generate_private_key(ec.SECP256R1())
        pairs.append((key, identity_certificate(index, key)))
    path = folder / "bundle.p12"
    path.write_bytes(pkcs12_bundle(pairs, "pw"))
    return path


def main():
    search = pathlib.Path(MODULE).exists()
    print(f"keyloft: {KEYLOFT}")
    print(f"module:  {MODULE if search else 'none, PKCS#11 searches skipped'}")
    print(f"{'identities':>10} {'list median ms':>15} {'list min ms':>12} {'ms per 1000':>12}"
          f" {'search after relabel ms':>24} {'search after append ms':>23}"
          f" {'... append with record ms':>26} {'search unchanged ms':>20}")
    for count in SIZES:
        with tempfile.TemporaryDirectory() as folder:
            home = pathlib.Path(folder)
            fill(home, count)
            median, best = timed(home, "list-identities")
            lines = run(home, "list-identities").stdout.count("\n")
            assert lines == count + 1, lines
            relabelled, appended, recorded, unchanged = (searched(home, count) if search
                                                         else (float("nan"),) * 4)
            print(f"{count:>10} {median * 1000:>15.1f} {best * 1000:>12.1f} "
                  f"{median * 1000 / count * 1000:>12.1f} {relabelled * 1000:>24.1f}"
                  f" {appended * 1000:>23.1f} {recorded * 1000:>26.1f} {unchanged * 1000:>20.1f}")
    medians = {}
    for count in (0, 1000):
        with tempfile.TemporaryDirectory() as folder:
            home = pathlib.Path(folder)
            fill(home, count)
            # The filled data has no room for records added in place: the first create writes it
            # whole. The later ones add in place until the room is used up (after a quarter as
            # many records again, at least 32), and then one writes it whole again.
            first = create_times(home, 1)[0]
            samples = create_times(home, CREATES)
            medians[count] = statistics.median(samples)
            print(f"create-identity p-256 on a card of {count} identities: first {first * 1000:.1f}"
                  f" ms, then {CREATES} more: median {medians[count] * 1000:.1f} ms,"
                  f" mean {statistics.mean(samples) * 1000:.1f} ms,"
                  f" max {max(samples) * 1000:.1f} ms")
    print(f"create-identity on 1000 identities / on an empty card (medians):"
          f" {medians[1000] / medians[0]:.2f}")
    with tempfile.TemporaryDirectory() as folder:
        home = pathlib.Path(folder)
        fill(home, 0)
        path = bundle(home, IMPORTED)
        seconds, _ = timed(home, "import-identities", "-f", str(path), "-p", "pw", runs=1)
        lines = run(home, "list-identities").stdout.count("\n")
        assert lines == IMPORTED + 1, lines
        print(f"import-identities of {IMPORTED} identities onto an empty card: {seconds:.2f} s"
              f" ({seconds * 1000 / IMPORTED:.1f} ms per identity)")


if __name__ == "__main__":
    main()
