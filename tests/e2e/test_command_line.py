"""The entry, the parser and the token context, seen from outside."""
import os
import shutil
import subprocess

import pytest

from conftest import KEYLOFT


def test_no_arguments_print_missing_sub_command(card):
    assert card.out() == "Error: Missing sub-command\n"
    assert not card.db_path.exists()


@pytest.mark.parametrize("args, line", [
    (["list-identities", "x"], "Error: Unexpected commandline argument 'x'\n"),
    (["create-identity", "--l"], "Error: Unrecognized commandline option '--l'\n"),
    (["create-identity", "-prot", "fingerprint"],
     "Error: Unsupported 'prot' paramater value 'fingerprint': use 'bio' or 'none'\n"),
    (["help"], "Error: Missing sub-command\n"),
])
def test_rejected_command_lines_leave_no_store(card, args, line):
    result = card.run(*args)
    assert result.stdout == line
    assert result.stderr == ""
    assert not card.folder.exists()


def test_accepted_command_creates_the_user_token(card):
    card.run("delete-all-identities", stdin="no\n")
    assert card.folder.stat().st_mode & 0o777 == 0o700
    assert card.db_path.stat().st_mode & 0o777 == 0o600
    with card.db() as db:
        assert db.execute("SELECT class_id FROM drivers").fetchall() == [("org.keyloft.token",)]
        assert db.execute("SELECT driver, instance, config_data FROM tokens").fetchall() == [
            ("org.keyloft.token", "user", None)]


def test_missing_driver_fails_every_command(card):
    card.run("delete-all-identities", stdin="n\n")
    card.sql("DELETE FROM tokens", "DELETE FROM drivers",
             "INSERT INTO drivers VALUES ('org.example.other')")
    assert card.out("delete-all-identities", stdin="yes\n") == (
        "Error: Failed to get TesseraTokenDriver configuration\n")


QUESTION = "Are you sure you want to delete all identities (yes/no)?\n"


@pytest.mark.parametrize("answers, asked, deletes", [
    ("YES\n", 1, True),
    ("Y\n", 1, True),
    ("maybe\n\n yes\nyes \nyes\n", 5, True),
    ("No\n", 1, False),
    ("n\n", 1, False),
    ("", 1, False),
    ("what\n", 2, False),
])
def test_delete_all_question(card, answers, asked, deletes):
    card.run("delete-all-identities", stdin="n\n")
    card.sql("UPDATE tokens SET config_data = x'0102' WHERE instance = 'user'")
    assert card.out("delete-all-identities", stdin=answers) == QUESTION * asked
    assert (card.config_data() is None) == deletes


def without_privileges(card, *args):
    """Runs keyloft as the user, bound by file modes: root without its capabilities."""
    prefix = []
    if os.geteuid() == 0:
        if shutil.which("setpriv") is None:
            pytest.skip("root needs setpriv to drop the capabilities that ignore file modes")
        prefix = ["setpriv", "--bounding-set=-all", "--inh-caps=-all", "--"]
    return subprocess.run([*prefix, KEYLOFT, *args], capture_output=True, text=True,
                          cwd=card.home, env=card.env(), timeout=120).stdout


def read_only_folder(card):
    card.folder.chmod(0o500)


def read_only_index_left(card):
    # A listing of a read-only store makes its index read-only too, and it stays so.
    card.db_path.chmod(0o400)
    assert "Error" not in without_privileges(card, "list-identities")
    card.db_path.chmod(0o600)


@pytest.mark.parametrize("make_read_only, args", [
    (read_only_folder, ["list-identities"]),
    (read_only_folder, ["create-identity", "-l", "B", "-k", "p-256"]),
    (read_only_index_left, ["create-identity", "-l", "B", "-k", "p-256"]),
])
def test_a_read_only_card_says_what_to_make_writable(card, make_read_only, args):
    card.run("create-identity", "-l", "A", "-k", "p-256")
    make_read_only(card)
    assert without_privileges(card, *args) == (
        f"Error: The card in {card.folder} is read-only: make the folder and the files in it"
        " writable by you\n")
    card.folder.chmod(0o700)
