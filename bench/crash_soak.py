#!/usr/bin/env python3
"""Kills keyloft's card-changing commands at random moments, 1,000 times by default, and prints
what the kills left: the same runs and checks as tests/e2e/test_crash_safety.py, many more of
them.

Usage: bench/crash_soak.py [path/to/keyloft] [kills]   (default: build/keyloft, 1000)
"""
import collections
import pathlib
import random
import re
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "e2e"))

from kill_runs import COMMANDS, KillRig  # noqa: E402

KEYLOFT = sys.argv[1] if len(sys.argv) > 1 else str(ROOT / "build" / "keyloft")
KILLS = int(sys.argv[2]) if len(sys.argv) > 2 else 1000


def main():
    started = time.monotonic()
    with tempfile.TemporaryDirectory() as folder:
        rig = KillRig(KEYLOFT, pathlib.Path(folder), random.Random(int(time.time())))
        print(f"keyloft: {KEYLOFT}")
        print(f"{'command':<22} {'ms':>5} {'runs':>5} {'killed':>6} {'broken':>6}")
        kinds = collections.Counter()
        for command in COMMANDS:
            wanted = -(-KILLS // len(COMMANDS))
            landed = runs = broken = 0
            while landed < wanted and runs < 6 * wanted:
                killed, findings = rig.kill_once(command)
                landed, runs, broken = landed + killed, runs + 1, broken + bool(findings)
                kinds.update(f"{command}: " + re.sub(r"[0-9A-F]{40}|\d+|'.*'|\[.*\]", "#", f)
                             for f in findings)
            print(f"{command:<22} {rig.duration(command) * 1000:>5.0f} {runs:>5} {landed:>6}"
                  f" {broken:>6}")
        print(f"\nfindings ({time.monotonic() - started:.0f} s):" if kinds else "\nno findings")
        for kind, count in kinds.most_common():
            print(f"{count:6} x {kind}")


if __name__ == "__main__":
    main()
