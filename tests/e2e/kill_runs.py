"""Commands that change the card, killed with SIGKILL at random moments, and what each kill left.

Every run starts from a copy of one template card (eight identities made by the tool) and is
judged with card_invariants: the store must hold whole identities only, be exactly as before or
exactly as the finished command leaves it (one transaction per command), still list, and take
one more create-identity. Shared by test_crash_safety.py and bench/crash_soak.py."""
import os
import shutil
import select
import signal
import statistics
import subprocess
import time

from card_invariants import check, listed_rows, read_store
from identities import key_hash, make_certificate, make_key
from pkcs12_bundle import pkcs12_bundle

COMMANDS = ("create-identity", "import-identities", "delete-identity", "delete-all-identities")
TEMPLATE_IDENTITIES, BUNDLE_SIZE = 8, 40


class KillRig:
    def __init__(self, keyloft, folder, rng, extra_env=None):
        self.keyloft, self.folder, self.rng = keyloft, folder, rng
        self.extra_env = dict(extra_env or {})
        self.template = folder / "template"
        self.template.mkdir(parents=True)
        for i in range(TEMPLATE_IDENTITIES):
            self.run(self.template, "create-identity", "-l", f"kept {i}", "-k", "p-256",
                     "-CN", f"kept {i}")
        self.before = read_store(self.template / "data/keyloft/tokens.db").identities()
        keys = [make_key("p-256") for _ in range(BUNDLE_SIZE)]
        self.bundle = folder / "bundle.p12"
        self.bundle.write_bytes(pkcs12_bundle(
            [(key, make_certificate(key, f"imported {i}")) for i, key in enumerate(keys)], "pw"))
        self.imported = {key_hash(key) for key in keys}
        self.runs, self.durations, self.attempts = 0, {}, {}
        for command in COMMANDS:
            self.measure(command)

    def env(self, home):
        env = {k: v for k, v in os.environ.items() if not k.startswith("XDG_")}
        env.update(HOME=str(home), XDG_DATA_HOME=str(home / "data"), LC_ALL="C.UTF-8", TZ="UTC")
        env.update(self.extra_env)
        return env

    def run(self, home, *args):
        return subprocess.run([self.keyloft, *args], capture_output=True, text=True, timeout=60,
                              cwd=home, env=self.env(home), stdin=subprocess.DEVNULL,
                              start_new_session=True).stdout

    def fresh_card(self):
        self.runs += 1
        home = self.folder / f"run{self.runs}"
        shutil.copytree(self.template, home)
        return home

    def argv(self, command):
        """The command line, and the identities the finished command leaves."""
        if command == "create-identity":
            return [command, "-l", "crash", "-k", "p-256", "-CN", "crash"], None
        if command == "import-identities":
            return [command, "-f", str(self.bundle), "-p", "pw"], set(self.before) | self.imported
        if command == "delete-identity":
            victim = self.rng.choice(sorted(self.before))
            return [command, "-h", victim.hex()], set(self.before) - {victim}
        return [command], set()

    def start(self, home, argv):
        process = subprocess.Popen([self.keyloft, *argv], stdin=subprocess.PIPE,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   cwd=home, env=self.env(home), start_new_session=True)
        process.stdin.write(b"yes\n")  # delete-all-identities asks first; the others never read
        process.stdin.close()
        return process

    def measure(self, command, runs=5):
        """Adds the durations of whole runs, from start to exit."""
        durations = self.durations.setdefault(command, [])
        for _ in range(runs):
            home = self.fresh_card()
            process = self.start(home, self.argv(command)[0])
            took = self.exit_within(process, 60)
            if took is None:
                os.killpg(process.pid, signal.SIGKILL)
            process.wait(timeout=60)
            assert took is not None, f"{command} ran for a minute"
            durations.append(took)
            shutil.rmtree(home)

    @staticmethod
    def exit_within(process, seconds):
        """Seconds until the process ended, or None when it still runs after that long."""
        start = time.monotonic()
        fd = os.pidfd_open(process.pid)
        try:
            ended = select.select([fd], [], [], seconds)[0]
        finally:
            os.close(fd)
        return time.monotonic() - start if ended else None

    def duration(self, command):
        """The median of the latest whole runs: one more every ten kills follows the load."""
        return statistics.median(self.durations[command][-5:])

    def kill_once(self, command):
        """Kills one run at a random moment; returns (whether it was still running, findings)."""
        self.attempts[command] = self.attempts.get(command, 0) + 1
        if self.attempts[command] % 10 == 0:
            self.measure(command, runs=1)
        home = self.fresh_card()
        argv, finished = self.argv(command)
        delay = self.rng.uniform(0, self.duration(command))
        process = self.start(home, argv)
        try:
            took = self.exit_within(process, delay)
            if took is None:
                os.killpg(process.pid, signal.SIGKILL)
        finally:
            if process.poll() is None:
                try:
                    os.killpg(process.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
            process.wait(timeout=60)
        findings = self.judge(home, finished)
        if not findings:
            shutil.rmtree(home)
        return took is None, findings

    def judge(self, home, finished):
        db_path = home / "data/keyloft/tokens.db"
        findings = []
        listing = self.run(home, "list-identities")
        store, problems = check(db_path)
        findings += problems
        if store is None:
            return findings
        rows = listed_rows(listing)
        keys = sum(1 for item in store.items if item[1] == "key")
        if rows is None or "Error:" in listing or len(rows) != keys:
            findings.append(f"list-identities printed {listing[:200]!r} for {keys} key items")

        after = store.identities()
        if finished is None:  # create-identity: one new identity labelled "crash"
            new = set(after) - set(self.before)
            finished = set(self.before) | new if store.labelled("crash") == list(new) else None
        kept = {h: after[h] for h in after if h in self.before}
        if after != self.before and (set(after) != finished or
                                     kept != {h: self.before[h] for h in kept}):
            findings.append(f"neither before nor finished: {len(set(self.before) - set(after))}"
                            f" of {len(self.before)} identities gone,"
                            f" {len(set(after) - set(self.before))} new")

        out = self.run(home, "create-identity", "-l", "after", "-k", "p-256", "-CN", "after")
        store, later = check(db_path)
        later = [problem for problem in later if problem not in problems]
        if out != "" or store is None or len(store.labelled("after")) != 1 or later:
            findings.append(f"create-identity after the kill printed {out!r}; store: {later}")
        return findings
