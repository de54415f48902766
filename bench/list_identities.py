#!/usr/bin/env python3
"""Times `keyloft list-identities` on cards of 100, 1,000 and 10,000 identities, and
`keyloft create-identity` on an empty and on a full card.

The cards are filled directly through SQLite and plistlib (certificates made with Python's
cryptography), so that filling a large card does not depend on the tool's own speed.

Usage: bench/list_identities.py [path/to/keyloft]   (default: build/keyloft)
"""
import datetime
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
KEYLOFT = sys.argv[1] if len(sys.argv) > 1 else str(ROOT / "build" / "keyloft")
SIZES = (100, 1000, 10000)
RUNS = 5


def env_for(home):
    return dict(os.environ, HOME=str(home), XDG_DATA_HOME=str(home / "data"), LC_ALL="C.UTF-8")


def run(home, *args):
    return subprocess.run([KEYLOFT, *args], env=env_for(home), capture_output=True, text=True,
                          check=True, stdin=subprocess.DEVNULL)


def identity(index, key):
    name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, f"Person {index}")])
    now = datetime.datetime.now(datetime.timezone.utc)
    cert = (x509.CertificateBuilder().subject_name(name).issuer_name(name)
            .public_key(key.public_key()).serial_number(index + 1)
            .not_valid_before(now).not_valid_after(now + datetime.timedelta(days=365))
            .sign(key, hashes.SHA256()))
    der = cert.public_bytes(serialization.Encoding.DER)
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


def main():
    print(f"keyloft: {KEYLOFT}")
    print(f"{'identities':>10} {'list median ms':>15} {'list min ms':>12} {'ms per 1000':>12}")
    for count in SIZES:
        with tempfile.TemporaryDirectory() as folder:
            home = pathlib.Path(folder)
            fill(home, count)
            median, best = timed(home, "list-identities")
            lines = run(home, "list-identities").stdout.count("\n")
            assert lines == count + 1, lines
            print(f"{count:>10} {median * 1000:>15.1f} {best * 1000:>12.1f} "
                  f"{median * 1000 / count * 1000:>12.1f}")
    for count in (0, 1000):
        with tempfile.TemporaryDirectory() as folder:
            home = pathlib.Path(folder)
            fill(home, count)
            median, best = timed(home, "create-identity", "-l", "bench", "-k", "p-256")
            print(f"create-identity p-256 on a card of {count} identities: "
                  f"median {median * 1000:.1f} ms, min {best * 1000:.1f} ms")


if __name__ == "__main__":
    main()
