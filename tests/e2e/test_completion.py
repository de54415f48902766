"""Bash completion: the script is sourced into bash and asked as bash would ask it."""
import os
import pathlib
import re
import subprocess

import pytest

from conftest import KEYLOFT

KEY_PROCESSORS = ("soft",)
SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "completion" / "keyloft.bash"
COMMANDS = {"create-identity", "list-identities", "create-csr", "import-certificate",
            "export-identity", "import-identities", "delete-identity", "delete-all-identities"}


def complete(card, line, cwd=None, with_bash_completion=False):
    """The completions bash offers for the last word of the line ("" for a new word)."""
    words = line.split(" ")
    prelude = ("source /usr/share/bash-completion/bash_completion\n"
               if with_bash_completion else "")
    program = prelude + f"""
source "$1"
COMP_WORDS=("${{@:2}}")
COMP_CWORD=$(( ${{#COMP_WORDS[@]}} - 1 ))
COMP_LINE="${{COMP_WORDS[*]}}"
COMP_POINT=${{#COMP_LINE}}
_keyloft keyloft "${{COMP_WORDS[COMP_CWORD]}}" "${{COMP_WORDS[COMP_CWORD-1]}}"
printf '%s\\n' "${{COMPREPLY[@]}}"
"""
    path = f"{pathlib.Path(KEYLOFT).parent}{os.pathsep}{os.environ.get('PATH', '')}"
    result = subprocess.run(["bash", "-c", program, "bash", str(SCRIPT), *words],
                            capture_output=True, text=True, cwd=cwd or card.home,
                            env=card.env(PATH=path), timeout=60, check=True)
    return set(result.stdout.split())


@pytest.fixture
def two_identities(card):
    for label in ("Mail", "Work"):
        card.run("create-identity", "-l", label, "-k", "p-256")
    hashes = set(re.findall(r"\b[0-9A-Fa-f]{40}\b", card.out("list-identities")))
    assert len(hashes) == 2
    return hashes


@pytest.mark.parametrize("line, expected", [
    ("keyloft ", COMMANDS),
    ("keyloft delete-", {"delete-identity", "delete-all-identities"}),
    ("keyloft -x ", COMMANDS),  # words before the command are ignored, as the tool ignores them
    ("keyloft create-identity -k p-3", {"p-384", "p-384-ne"}),
    ("keyloft create-identity -k ", {"p-256", "p-384", "p-521", "p-256-ne", "p-384-ne", "rsa-2048",
                                     "rsa-3072", "rsa-2048-ne", "rsa-3072-ne"}),
    ("keyloft create-identity -prot ", {"bio", "none"}),
    ("keyloft list-identities -t ", {"sha1", "sha256", "ssh"}),
    ("keyloft list-identities -t ssh -e ", {"hex", "b64"}),
    ("keyloft list-identities -t ssh -", {"-e"}),
    ("keyloft export-identity -", {"-h", "-f", "-p"}),
    ("keyloft import-identities -", {"-f", "-p", "-prot"}),
    ("keyloft create-identity -l Mail -k p-256 -C", {"-CN", "-C"}),
    ("keyloft create-identity -l ", set()),
    ("keyloft delete-all-identities -", set()),
])
def test_words(card, line, expected):
    assert complete(card, line) == expected


@pytest.mark.parametrize("command", ["delete-identity", "export-identity", "create-csr"])
def test_hashes_come_from_the_card(card, two_identities, command):
    assert complete(card, f"keyloft {command} -h ") == two_identities
    one = sorted(two_identities)[0]
    assert complete(card, f"keyloft {command} -h {one[:12]}") == {one}


def test_no_hashes_and_no_card_for_a_new_user(card):
    assert complete(card, "keyloft delete-identity -h ") == set()
    assert not card.folder.exists()


@pytest.mark.parametrize("with_bash_completion", [False, True])
def test_files(card, tmp_path, with_bash_completion):
    if with_bash_completion and not pathlib.Path(
            "/usr/share/bash-completion/bash_completion").exists():
        pytest.skip("bash-completion is not installed")
    for name in ("alice.p12", "alice.pem", "bob.p12"):
        (tmp_path / name).write_text("")
    assert complete(card, "keyloft import-identities -f al", cwd=tmp_path,
                    with_bash_completion=with_bash_completion) == {"alice.p12", "alice.pem"}
