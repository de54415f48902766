"""Commands run at once on one card: every write that reports success has its whole effect, a
write that fails says so and leaves nothing, and readers beside them see whole identities.

KEYLOFT_CONCURRENCY_ROUNDS sets the number of rounds (each a fresh card)."""
import collections
import json
import os
import pathlib
import random
import re
import subprocess
import sys
import threading
import time

import pytest

from card_invariants import check, listed_rows, read_store
from conftest import KEYLOFT, PKCS11_MODULE, Card
from identities import der, key_hash, make_certificate, make_key, place, sealed_record
from pkcs12_bundle import pkcs12_bundle

ROUNDS = int(os.environ.get("KEYLOFT_CONCURRENCY_ROUNDS", "20"))
WRITERS, READERS, SEEDS, BUNDLE_SIZE = 8, 3, 6, 3
ROUND_SECONDS = 60
# The only failure a writer may report: it waited for the card longer than the tool allows.
WAIT_TIMEOUT = re.compile(r"Error: [^\n]*(busy|locked|timed? ?out|timeout)[^\n]*\n", re.I)
HASH = re.compile(r"[0-9A-F]{40}")


@pytest.fixture(scope="module")
def material(tmp_path_factory):
    """Identities placed on every round's card before it starts, and PKCS#12 files of fresh
    identities, one per import writer; every round's card is new, so both are reused."""
    folder = tmp_path_factory.mktemp("material")
    keys = [make_key("p-256") for _ in range(SEEDS)]
    seeds = [(f"seed {i}", key, make_certificate(key, f"seed {i}"), sealed_record(key))
             for i, key in enumerate(keys)]
    bundles = []
    for b in range(WRITERS):
        pairs = [(key, make_certificate(key, f"bundle {b}.{i}"))
                 for i, key in enumerate(make_key("p-256") for _ in range(BUNDLE_SIZE))]
        path = folder / f"bundle{b}.p12"
        path.write_bytes(pkcs12_bundle(pairs, "pw"))
        bundles.append((path, {key_hash(key): certificate for key, certificate in pairs}))
    return seeds, bundles


class Session:
    """The module loaded by one long-lived client that searches for objects in a loop."""

    def __init__(self, card):
        self.process = subprocess.Popen(
            [sys.executable, pathlib.Path(__file__).with_name("pkcs11_session.py"), PKCS11_MODULE],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            cwd=card.home, env=card.client_env(), start_new_session=True)
        self.answers, self.error = [], None
        self.stop = threading.Event()
        self.thread = threading.Thread(target=self.loop, daemon=True)

    def find(self):
        self.process.stdin.write("find\n")
        self.process.stdin.flush()
        line = self.process.stdout.readline()
        if not line:
            raise RuntimeError(f"the session ended: {self.process.stderr.read()[-2000:]}")
        return json.loads(line)

    def loop(self):
        try:
            while not self.stop.is_set():
                self.answers.append(self.find())
        except Exception as error:  # reported with the round's findings
            self.error = error

    def close(self):
        self.stop.set()
        self.thread.join(timeout=ROUND_SECONDS)
        try:
            self.process.stdin.close()
            self.process.wait(timeout=30)
        except (OSError, subprocess.TimeoutExpired):
            pass
        finally:
            if self.process.poll() is None:
                os.killpg(self.process.pid, 9)
                self.process.wait()


def start(card, *args):
    return subprocess.Popen([KEYLOFT, *args], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                            cwd=card.home, env=card.env(), start_new_session=True)


def finish(process, deadline):
    """(exit status, stdout) of a process, killed with its group once the deadline has passed."""
    try:
        out, _ = process.communicate(timeout=max(deadline - time.monotonic(), 0.1))
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, 9)
        out, _ = process.communicate()
        return "hung", out
    return process.returncode, out


def writers_for(rng, seeds, bundles):
    """Eight writers, at least one of each kind, in random order: (kind, argument, argv)."""
    creates = rng.randint(1, WRITERS - 2)
    deletes = rng.randint(1, min(SEEDS, WRITERS - creates - 1))
    imports = WRITERS - creates - deletes
    victims = rng.sample([key_hash(key) for _, key, _, _ in seeds], deletes)
    writers = [("create", f"new {i}", ["create-identity", "-l", f"new {i}", "-k", "p-256",
                                       "-CN", f"new {i}"]) for i in range(creates)]
    writers += [("delete", v, ["delete-identity", "-h", v.hex()]) for v in victims]
    writers += [("import", bundles[i], ["import-identities", "-f", str(bundles[i][0]), "-p", "pw"])
                for i in range(imports)]
    rng.shuffle(writers)
    return writers


def run_round(home, seeds, bundles, rng):
    """Runs one round on a fresh card; returns its findings, one line each."""
    home.mkdir()
    card = Card(home)
    place(card, seeds)
    before = read_store(card.db_path).identities()
    writers = writers_for(rng, seeds, bundles)
    session = Session(card)
    findings, listings, results, processes, readers, final = [], [], [], [], [], None
    try:
        session.find()  # the module is loaded before the writers start
        session.thread.start()
        deadline = time.monotonic() + ROUND_SECONDS
        processes = [start(card, *argv) for _, _, argv in writers]
        readers = [start(card, "list-identities") for _ in range(READERS)]
        # Readers start again as soon as they finish, as long as a writer runs.
        while any(p.poll() is None for p in processes) and time.monotonic() < deadline:
            for i, reader in enumerate(readers):
                if reader.poll() is not None:
                    listings.append(finish(reader, deadline))
                    readers[i] = start(card, "list-identities")
            time.sleep(0.002)
        results = [finish(p, deadline) for p in processes]
        listings += [finish(r, deadline) for r in readers]
        session.stop.set()
        session.thread.join(timeout=ROUND_SECONDS)
        if session.error is None and not session.thread.is_alive():
            final = session.find()
    finally:
        for process in processes + readers:
            if process.poll() is None:
                os.killpg(process.pid, 9)
                process.communicate()
        session.close()
    if session.error:
        findings.append(f"PKCS#11 session: {session.error}")

    after_store, problems = check(card.db_path)
    findings += [f"store: {problem}" for problem in problems]
    if after_store is None:
        return findings
    after = after_store.identities()
    expected = dict(before)

    for (kind, what, argv), (status, out) in zip(writers, results):
        name = f"{argv[0]} " + {"create": lambda: what, "delete": lambda: what.hex().upper(),
                                "import": lambda: what[0].name}[kind]()
        succeeded = status == 0 and out == ""
        if not succeeded and not (status == 0 and WAIT_TIMEOUT.fullmatch(out)):
            findings.append(f"{name}: exit {status}, printed {out!r}")
        if kind == "create":
            made = after_store.labelled(what)
            if succeeded and len(made) != 1:
                findings.append(f"{name}: reported success, {len(made)} identities carry its label")
            elif not succeeded and made:
                findings.append(f"{name}: failed, yet left {len(made)} identities")
            expected.update({h: after[h] for h in made if succeeded and len(made) == 1})
        elif kind == "delete":
            if succeeded:
                expected.pop(what, None)
        else:
            for hash_, certificate in what[1].items():
                if not succeeded:
                    if hash_ in after:
                        findings.append(f"{name}: failed, yet left {hash_.hex().upper()}")
                elif hash_ not in after:
                    findings.append(f"{name}: reported success, {hash_.hex().upper()} missing")
                else:
                    items, _ = after[hash_]
                    if [row[2] for row in items] != [der(certificate)] * len(items):
                        findings.append(f"{name}: {hash_.hex().upper()} has a foreign certificate")
                    expected[hash_] = after[hash_]
    deleted = {what for (kind, what, _), (status, out) in zip(writers, results)
               if kind == "delete" and status == 0 and out == ""}
    for hash_ in set(expected) | set(after):
        name = hash_.hex().upper()
        if hash_ not in after:
            findings.append(f"{name}: lost")
        elif hash_ in deleted:
            findings.append(f"{name}: delete-identity reported success, yet it is still there")
        elif hash_ not in expected:
            findings.append(f"{name}: present, no successful command made it")
        elif after[hash_] != expected[hash_]:
            findings.append(f"{name}: changed by no command that targeted it")

    for status, out in listings:
        rows = listed_rows(out) if status == 0 and out.startswith("Key Type") else None
        if rows is None or "Error:" in out:
            findings.append(f"list-identities: exit {status}, printed {out[:200]!r}")
            continue
        hashes = [row[1] for row in rows]
        if len(set(hashes)) != len(hashes) or not all(HASH.fullmatch(h) for h in hashes):
            findings.append(f"list-identities: malformed or repeated hashes {hashes}")
        # A row without protection or common name is a key seen without its record or
        # certificate: a reader saw a half-written identity.
        halves = [row[1] for row in rows if row[2] not in ("none", "bio") or not row[4]]
        if halves:
            findings.append(f"list-identities: half identities listed {halves}")
    whole = {object_id for object_id in after if object_id in after_store.records}
    published = sorted([label, object_id.hex()] for _, kind, object_id, label, *_ in
                       after_store.items if kind == "key" and object_id in whole)
    if final is not None and sorted(final) != published:
        findings.append(f"PKCS#11 search after the round: {sorted(final)}, store: {published}")
    for answer in session.answers:
        ids = [id_ for _, id_ in answer]
        if len(set(ids)) != len(ids):
            findings.append(f"PKCS#11 search: repeated private keys {answer}")
    return findings


@pytest.mark.skipif(not pathlib.Path(PKCS11_MODULE).exists(), reason="no PKCS#11 module")
def test_concurrent_writers_keep_every_identity_whole(tmp_path, material):
    seeds, bundles = material
    failed = {}
    for round_ in range(ROUNDS):
        findings = run_round(tmp_path / f"round{round_}", seeds, bundles, random.Random(round_))
        if findings:
            failed[round_] = list(dict.fromkeys(findings))
        if any("exit hung" in finding for finding in findings):
            break  # one hang is enough to know, and every further round would wait as long
    kinds = collections.Counter(re.sub(r"[0-9A-Fa-f]{40}|\[.*\]|'.*'|new \d+|bundle\d+", "*", f)
                                for findings in failed.values() for f in findings)
    lines = [f"round {r}: {finding}" for r, findings in failed.items() for finding in findings]
    assert not failed, (f"{len(failed)} of {ROUNDS} rounds failed; findings by kind:\n"
                        + "\n".join(f"{n:5} x {kind}" for kind, n in kinds.most_common())
                        + "\n" + "\n".join(lines[:40]))
