"""The store's layout version: older cards are upgraded in place, a newer card is refused."""
import hashlib
import sqlite3

import pytest

from conftest import PKCS11_MODULE


def layout(card):
    with card.db() as db:
        return db.execute("PRAGMA user_version").fetchone()[0]


def set_layout(card, version):
    with sqlite3.connect(card.db_path) as db:
        db.execute(f"PRAGMA user_version = {version}")
        db.execute("PRAGMA wal_checkpoint(TRUNCATE)")


def store_digest(card):
    """Of the database and its write-ahead log: what a change would touch."""
    wal = card.db_path.with_name("tokens.db-wal")
    return hashlib.sha256(card.db_path.read_bytes() +
                          (wal.read_bytes() if wal.exists() else b"")).hexdigest()


def test_a_new_card_records_its_layout(card):
    card.run("create-identity", "-l", "New", "-k", "p-256", "-CN", "New")
    assert layout(card) == 1


def test_a_card_without_a_recorded_layout_is_upgraded_and_keeps_its_identities(card):
    card.run("create-identity", "-l", "Old", "-k", "p-256", "-CN", "Old")
    before = card.out("list-identities")
    set_layout(card, 0)
    assert card.out("list-identities") == before
    assert layout(card) == 1


@pytest.mark.parametrize("command", [
    ["list-identities"],
    ["create-identity", "-l", "Later", "-k", "p-256", "-CN", "Later"],
    ["delete-all-identities"],
])
def test_a_card_of_a_newer_layout_is_refused_and_left_unchanged(card, command):
    card.run("create-identity", "-l", "Future", "-k", "p-256", "-CN", "Future")
    set_layout(card, 2)
    digest = store_digest(card)
    output = card.out(*command, stdin="yes\n")
    assert output == ("Error: The card was written by a newer version of keyloft (store layout 2;"
                      " this version reads up to 1): update keyloft to use it\n")
    assert store_digest(card) == digest
    assert layout(card) == 2


def test_the_module_serves_nothing_from_a_card_of_a_newer_layout(card):
    card.run("create-identity", "-l", "Future", "-k", "p-256", "-CN", "Future")
    set_layout(card, 2)
    listing = card.client("pkcs11-tool", "--module", PKCS11_MODULE, "-O", check=False)
    assert "Future" not in listing.stdout
