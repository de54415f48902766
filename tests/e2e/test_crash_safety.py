"""Commands killed at random moments leave the card whole: as before or as finished, listable,
and ready for the next command.

KEYLOFT_CRASH_KILLS sets how many kills land in all (spread evenly over the four commands)."""
import collections
import os
import pathlib
import random
import re
import signal
import subprocess

import pytest

from conftest import KEY_PROCESSOR_ENV, KEYLOFT, PKCS11_PRELOAD
from kill_runs import COMMANDS, KillRig

KILLS = int(os.environ.get("KEYLOFT_CRASH_KILLS", "200"))
FSYNC_HELD = pathlib.Path(__file__).with_name("fsync_held.c")


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


@pytest.fixture(scope="module")
def fsync_held(tmp_path_factory):
    library = tmp_path_factory.mktemp("shim") / "fsync_held.so"
    subprocess.run(["cc", "-Wall", "-Werror", "-shared", "-fPIC", "-o", library, FSYNC_HELD,
                    "-ldl"], check=True)
    return library


@pytest.mark.parametrize("command, name", [("export-identity", "out.p12"),
                                           ("create-csr", "out.csr")])
def test_a_command_killed_while_writing_its_file_leaves_nothing_beside_it(card, tmp_path,
                                                                          fsync_held, command,
                                                                          name):
    card.run("create-identity", "-l", "A", "-k", "p-256", "-CN", "A")
    folder = tmp_path / "out"
    folder.mkdir()
    # The file is killed with its content written, while it is being synced.
    env = card.env(LD_PRELOAD=":".join(filter(None, [PKCS11_PRELOAD, str(fsync_held)])),
                   KEYLOFT_TEST_HOLD_FSYNC_IN=str(folder))
    process = subprocess.Popen(
        [KEYLOFT, command, "-h", card.items()[-1][1].hex(), "-f", str(folder / name), "-p", "pw"],
        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, cwd=card.home, env=env,
        start_new_session=True)
    try:
        assert process.stderr.readline() == b"holding\n"
    finally:
        os.killpg(process.pid, signal.SIGKILL)
        process.wait(timeout=60)
    assert list(folder.iterdir()) == []
