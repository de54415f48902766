"""Which key processor makes new keys: the TPM whenever one is usable, soft otherwise, and never
soft behind the back of a card that holds TPM keys. Keys of both live side by side."""
import hashlib
import json
import os
import pathlib
import shutil
import subprocess
import sys

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec, utils

from conftest import PKCS11_MODULE, free_port_pair, wait_for

# Each test says what it asks of the soft back end itself.
KEY_PROCESSORS = ("tpm",)
CREATE = ("create-identity", "-l", "New", "-k", "p-256-ne", "-CN", "New")
# No TPM named, and no system bus where a tpm2-abrmd of this machine could answer.
NO_TPM = {"KEYLOFT_TCTI": None, "KEYLOFT_KEY_PROCESSOR": None,
          "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nonexistent/bus"}


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


class PrivateTpm:
    """A swtpm of the test's own, reached directly, that the test can stop, and start again with
    its state or with a fresh one: to the keys made in it, a TPM that was cleared."""

    def __init__(self, folder):
        self.folder = folder
        self.port = free_port_pair()
        self.process = None
        self.generation = 0
        self.tcti = f"swtpm:host=127.0.0.1,port={self.port}"

    def start(self, fresh=False):
        self.generation += fresh
        state = self.folder / f"state{self.generation}"
        state.mkdir(exist_ok=True)
        self.process = subprocess.Popen(
            [shutil.which("swtpm"), "socket", "--tpm2", "--tpmstate", f"dir={state}",
             "--server", f"type=tcp,bindaddr=127.0.0.1,port={self.port}",
             "--ctrl", f"type=tcp,bindaddr=127.0.0.1,port={self.port + 1}",
             "--flags", "not-need-init,startup-clear"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

        def accepts():
            import socket
            with socket.socket() as probe:
                return probe.connect_ex(("127.0.0.1", self.port + 1)) == 0
        wait_for(accepts, "swtpm", self.process)

    def stop(self):
        if self.process is not None:
            self.process.terminate()
            self.process.wait(timeout=10)
            self.process = None


@pytest.fixture
def private_tpm(tmp_path, software_tpm):
    tpm = PrivateTpm(tmp_path)
    tpm.start()
    yield tpm
    tpm.stop()


def unchanged_after(card, *args, **env):
    """The tool's one error line for the command; the card as it was before."""
    before = (card.config_data(), card.items())
    result = card.run(*args, **env)
    assert (card.config_data(), card.items()) == before
    lines = result.stdout.splitlines()
    assert len(lines) == 1 and lines[0].startswith("Error: "), result
    return lines[0]


@pytest.mark.parametrize("kind", ["p-256-ne", "p-256"])
def test_keys_of_a_cleared_tpm_say_so(card, private_tpm, kind):
    card.run("create-identity", "-l", "Old", "-k", kind, KEYLOFT_TCTI=private_tpm.tcti)
    hash_ = card.items()[0][1].hex()
    private_tpm.stop()
    private_tpm.start(fresh=True)
    line = unchanged_after(card, "create-csr", "-h", hash_, "-f", "old", "-CN", "Old",
                           KEYLOFT_TCTI=private_tpm.tcti)
    assert "the TPM has been cleared" in line, line
    assert not (card.home / "old.csr").exists()


@pytest.mark.parametrize("step", ["create", "use"])
def test_an_unreachable_tpm_says_so_and_changes_nothing(card, private_tpm, step):
    card.run("create-identity", "-l", "Kept", "-k", "p-256-ne", KEYLOFT_TCTI=private_tpm.tcti)
    hash_ = card.items()[0][1].hex()
    private_tpm.stop()
    args = (CREATE if step == "create"
            else ("create-csr", "-h", hash_, "-f", "kept", "-CN", "Kept"))
    line = unchanged_after(card, *args, KEYLOFT_TCTI=private_tpm.tcti)
    assert f"cannot be reached through '{private_tpm.tcti}'" in line, line


def test_tpm2_abrmd_on_the_system_bus_is_found_quietly(card, private_tpm, software_tpm):
    """Without /dev/tpmrm0, a tpm2-abrmd on the system bus serves; without one, soft does, and
    neither case prints anything on stderr."""
    no_tpm_here()
    bus = software_tpm["DBUS_SESSION_BUS_ADDRESS"]
    env = dict(NO_TPM, DBUS_SYSTEM_BUS_ADDRESS=bus)
    assert card.run(*CREATE, **NO_TPM).stderr == ""
    manager = subprocess.Popen(
        [shutil.which("tpm2-abrmd", path=os.pathsep.join([os.environ["PATH"], "/usr/sbin"])),
         "--session", f"--tcti={private_tpm.tcti}", "--flush-all",
         *(["--allow-root"] if os.geteuid() == 0 else [])],
        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        env=dict(os.environ, DBUS_SESSION_BUS_ADDRESS=bus))
    try:
        owned = lambda: "boolean true" in subprocess.run(
            ["dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus",
             "/org/freedesktop/DBus", "org.freedesktop.DBus.NameHasOwner",
             "string:com.intel.tss2.Tabrmd"], capture_output=True, text=True,
            env=dict(os.environ, DBUS_SESSION_BUS_ADDRESS=bus)).stdout
        wait_for(owned, "tpm2-abrmd", manager)
        result = card.run("create-identity", "-l", "Tpm", "-k", "p-256-ne", **env)
        assert result.stderr == ""
    finally:
        manager.terminate()
        manager.wait(timeout=10)
    assert sorted(back_ends(card).values()) == [b"s", b"t"]


def test_one_session_signs_with_more_keys_than_the_resource_manager_holds(card, tpm_services):
    """tpm2-abrmd holds three loaded objects per client here, the storage key among them; one
    session signs with five keys, twice round, as a browser trying each certificate would."""
    env, _ = tpm_services.start("--max-transients", "3")
    for number in range(5):
        card.run("create-identity", "-l", f"K{number}", "-k", "p-256-ne", "-CN", f"K{number}",
                 **env)
    keys = [(object_id.hex(), x509.load_der_x509_certificate(certificate).public_key())
            for kind, object_id, _, certificate, *_ in card.items() if kind == "certificate"]
    assert len(keys) == 5
    session = subprocess.Popen(
        [sys.executable, pathlib.Path(__file__).with_name("pkcs11_session.py"), PKCS11_MODULE],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
        cwd=card.home, env=card.client_env(**env))
    try:
        for round_ in range(2):
            for id_, public_key in keys:
                digest = hashlib.sha256(f"{round_} {id_}".encode()).digest()
                session.stdin.write(f"sign {id_} {digest.hex()}\n")
                session.stdin.flush()
                answer = session.stdout.readline()
                assert answer, session.communicate(timeout=60)[1]
                raw = bytes.fromhex(json.loads(answer))
                public_key.verify(utils.encode_dss_signature(int.from_bytes(raw[:32], "big"),
                                                             int.from_bytes(raw[32:], "big")),
                                  digest, ec.ECDSA(utils.Prehashed(hashes.SHA256())))
    finally:
        session.stdin.close()
        session.wait(timeout=60)
    assert session.returncode == 0


def test_a_resource_manager_dying_mid_command_leaves_one_error_line(card, tpm_services, presence,
                                                                   tmp_path):
    """tpm2-abrmd killed while the tool asks for presence, between loading the key and signing
    with it: under the prompt, the tool's one error line is all the terminal shows (its TCTI
    warns through GLib)."""
    env, manager = tpm_services.start()
    presence("pam_permit.so")
    card.run_on_terminal("create-identity", "-l", "Bio", "-k", "p-256-ne", "-prot", "bio", **env)
    hash_ = card.items()[0][1].hex()
    killer = tmp_path / "kill-manager"
    # Run by PAM; returns once the manager is gone (a zombie until the test reaps it).
    pid = manager.pid
    killer.write_text(f"#!/bin/sh\nkill -KILL {pid}\n"
                      f"until grep -q '^State:.*Z' /proc/{pid}/status; do sleep 0.05; done\n")
    killer.chmod(0o755)
    presence(f"pam_exec.so {killer}")
    screen = card.run_on_terminal("create-csr", "-h", hash_, "-f", "bio", "-CN", "Bio", **env)
    prompt, *rest = screen.splitlines()
    assert prompt == "Confirm your presence to use the key." and len(rest) == 1, screen
    assert rest[0].startswith("Error: ") and "the TPM does not answer" in rest[0], screen
    assert not (card.home / "bio.csr").exists()


def settings(card, text):
    folder = card.home / ".config" / "keyloft"
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "keyloft.conf").write_text(text)
    return folder / "keyloft.conf"


def test_the_settings_can_require_the_tpm_for_good(card):
    """require_tpm = yes: without a TPM no key is made in software, and nothing is written."""
    no_tpm_here()
    settings(card, "require_tpm = yes\n")
    for kind in ("p-256-ne", "p-256"):
        line = card.out("create-identity", "-l", "New", "-k", kind, **NO_TPM)
        assert line.startswith("Error: Key processor: no TPM found"), line
        assert line.endswith("the settings require the TPM for new keys (require_tpm = yes)\n")
    assert card.config_data() is None or card.items() == []
    card.run(*CREATE)  # the session's TPM answers
    assert list(back_ends(card).values()) == [b"t"]


def test_a_malformed_settings_file_is_named_with_its_line(card):
    path = settings(card, "# keyloft\nrequire_tpm = always\n")
    assert card.out(*CREATE, **NO_TPM) == (
        f"Error: The settings file {path}, line 2: require_tpm is 'yes' or 'no'\n")
    assert card.config_data() is None or card.items() == []
