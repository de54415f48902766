"""The entry, the parser and the token context, seen from outside."""
import pytest


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
