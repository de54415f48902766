"""Which key processor makes new keys: the TPM whenever one is usable, soft otherwise, and never
soft behind the back of a card that holds TPM keys. Keys of both live side by side."""
import os

import pytest
from cryptography import x509

# Each test says what it asks of the soft back end itself.
KEY_PROCESSORS = ("tpm",)
CREATE = ("create-identity", "-l", "New", "-k", "p-256-ne", "-CN", "New")
NO_TPM = {"KEYLOFT_TCTI": None, "KEYLOFT_KEY_PROCESSOR": None}


def back_ends(card):
    """The back-end letter of every processor key the records reach, by hash."""
    found = {}
    for hash_, record in card.records().items():
        if "bastionKey" in record:
            identifier = record["bastionKey"]["keyData"]
        else:
            identifier = record["sealedKey"]["wrappingPrivateKeyData"]
        assert identifier[:5] == b"KLBK\x01"
        found[hash_] = identifier[5:6]
    return found


def no_tpm_here():
    if os.path.exists("/dev/tpmrm0"):
        pytest.skip("this machine has a TPM, which the tool would find without KEYLOFT_TCTI")


@pytest.mark.parametrize("forced, letter", [(None, b"t"), ("soft", b"s")])
@pytest.mark.parametrize("kind", ["p-256", "p-384-ne"])
def test_new_keys_go_to_the_processor_in_use(card, kind, forced, letter):
    card.run("create-identity", "-l", "A", "-k", kind, KEYLOFT_KEY_PROCESSOR=forced)
    assert list(back_ends(card).values()) == [letter]


def test_a_card_holding_tpm_keys_gets_no_soft_keys_silently(card):
    no_tpm_here()
    card.run("create-identity", "-l", "Kept", "-k", "p-256")
    before = card.config_data()

    for args in (CREATE, ("create-identity", "-l", "New", "-k", "p-384")):
        line = card.out(*args, **NO_TPM)
        assert line.startswith("Error: Key processor: no TPM found")
        assert "this card holds TPM keys" in line, line
    assert card.config_data() == before
    assert "Kept" in card.out("list-identities", **NO_TPM)

    # Asked for by name, soft keys join the TPM ones.
    card.run(*CREATE, **dict(NO_TPM, KEYLOFT_KEY_PROCESSOR="soft"))
    assert sorted(back_ends(card).values()) == [b"s", b"t"]


def test_a_card_without_tpm_keys_falls_back_to_soft(card):
    no_tpm_here()
    card.run(*CREATE, **NO_TPM)
    assert list(back_ends(card).values()) == [b"s"]


@pytest.mark.parametrize("env, message", [
    ({"KEYLOFT_TCTI": "swtpm:host=127.0.0.1,port=1"}, "swtpm:host=127.0.0.1,port=1"),
    ({"KEYLOFT_TCTI": None, "KEYLOFT_KEY_PROCESSOR": "tpm"}, "no TPM found"),
    ({"KEYLOFT_KEY_PROCESSOR": "hardware"}, "KEYLOFT_KEY_PROCESSOR is 'hardware'"),
])
def test_a_tpm_asked_for_by_name_is_not_replaced(card, env, message):
    if env.get("KEYLOFT_KEY_PROCESSOR") == "tpm":
        no_tpm_here()
    line = card.out(*CREATE, **env)
    assert line.startswith("Error: ") and message in line, line
    assert card.items() == []


def test_soft_and_tpm_keys_sign_side_by_side(card):
    card.run("create-identity", "-l", "Soft", "-k", "p-256-ne", KEYLOFT_KEY_PROCESSOR="soft")
    card.run("create-identity", "-l", "Tpm", "-k", "p-256-ne")
    assert sorted(back_ends(card).values()) == [b"s", b"t"]
    for kind, object_id, label, certificate, *_ in card.items():
        if kind != "certificate":
            continue
        hash_ = object_id.hex()
        card.run("create-csr", "-h", hash_, "-f", label, "-CN", label)
        request = x509.load_pem_x509_csr((card.home / f"{label}.csr").read_bytes())
        assert request.is_signature_valid
        assert (request.public_key().public_numbers()
                == x509.load_der_x509_certificate(certificate).public_key().public_numbers())
