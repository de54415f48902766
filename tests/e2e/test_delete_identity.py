"""delete-identity removes one identity's items and record, and nothing else."""
import pytest

from identities import bastion_record, key_hash, make_certificate, make_key, place, sealed_record


@pytest.fixture
def three(card):
    keys = [make_key("p-256"), make_key("p-384"), make_key("rsa-2048")]
    place(card, [("a", keys[0], make_certificate(keys[0]), sealed_record(keys[0])),
                 ("b", keys[1], make_certificate(keys[1]), bastion_record(keys[1], "on")),
                 ("c", keys[2], make_certificate(keys[2]), sealed_record(keys[2]))])
    return keys


def labels(card):
    return [(kind, label) for kind, _, label, *_ in card.items()]


def test_lower_case_hash_removes_items_and_record(card, three):
    assert card.out("delete-identity", "-h", key_hash(three[1]).hex().lower()) == ""
    assert labels(card) == [("certificate", "a"), ("key", "a"), ("certificate", "c"), ("key", "c")]
    assert set(card.records()) == {key_hash(three[0]), key_hash(three[2])}


@pytest.mark.parametrize("hash_text", ["00" * 20, "00" * 19, "", "AB" * 21])
def test_unknown_hashes_are_silent_and_change_nothing(card, three, hash_text):
    before = card.items()
    assert card.out("delete-identity", "-h", hash_text) == ""
    assert card.items() == before
    assert len(card.records()) == 3


@pytest.mark.parametrize("hash_text, line", [
    (None, "Error: 'hash' paramater is mandatory\n"),
    ("abc", "Error: Failed to parse pub key hash\n"),
    ("0g" * 20, "Error: Failed to parse pub key hash\n"),
])
def test_bad_hashes(card, three, hash_text, line):
    args = ["delete-identity"] + ([] if hash_text is None else ["-h", hash_text])
    assert card.out(*args) == line
    assert len(card.items()) == 6


def test_corrupt_certificate_stops_before_anything_is_removed(card, three):
    card.sql("UPDATE items SET certificate = x'3000' WHERE position = 4")
    assert card.out("delete-identity", "-h", key_hash(three[0]).hex()) == (
        "Error: Failed to parse certificate from data\n")
    assert len(card.items()) == 6
    assert len(card.records()) == 3


def test_undecodable_records_keep_the_items_removed(card, three):
    card.sql("UPDATE tokens SET config_data = x'626c61'")
    assert card.out("delete-identity", "-h", key_hash(three[0]).hex()) == "Error: decodeDataFailed\n"
    assert [label for _, label in labels(card)] == ["b", "b", "c", "c"]
