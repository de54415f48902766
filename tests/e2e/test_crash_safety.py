"""Commands killed at random moments leave the card whole: as before or as finished, listable,
and ready for the next command.

KEYLOFT_CRASH_KILLS sets how many kills land in all (spread evenly over the four commands)."""
import collections
import os
import random
import re

import pytest

from conftest import KEY_PROCESSOR_ENV, KEYLOFT
from kill_runs import COMMANDS, KillRig

KILLS = int(os.environ.get("KEYLOFT_CRASH_KILLS", "200"))


@pytest.fixture(scope="module")
def rig(tmp_path_factory, key_processor):
    return KillRig(KEYLOFT, tmp_path_factory.mktemp("kills"), random.Random(1), KEY_PROCESSOR_ENV)


@pytest.mark.parametrize("command", COMMANDS)
def test_killed_commands_leave_whole_identities(rig, command):
    wanted = -(-KILLS // len(COMMANDS))
    landed, runs, failed = 0, 0, []
    # A run that ends before its kill still counts as a check, not as a kill.
    while landed < wanted and runs < 6 * wanted:
        killed, findings = rig.kill_once(command)
        landed, runs = landed + killed, runs + 1
        if findings:
            failed.append(findings)
    kinds = collections.Counter(re.sub(r"[0-9A-F]{40}|\d+|'.*'|\[.*\]", "#", finding)
                                for findings in failed for finding in findings)
    assert not failed, (f"{len(failed)} of {runs} runs ({landed} killed) left a broken card"
                        f" (command measured at {rig.duration(command) * 1000:.0f} ms):\n"
                        + "\n".join(f"{n:5} x {kind}" for kind, n in kinds.most_common()))
    assert landed >= wanted, f"only {landed} of {runs} runs were still running at their kill"
