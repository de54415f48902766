"""The presence check of "-prot bio" keys without a controlling terminal: polkit, asked over a
private system bus, with a rules file that answers yes, no, or "authenticate" (which no
authentication agent answers here). polkit holds root authorized for everything, so the tool and
the PKCS#11 clients run as an unprivileged user of the test's own."""
import json
import os
import pathlib
import pwd
import re
import shutil
import subprocess
import sys
import tempfile
import time

import pytest

from conftest import KEYLOFT, PKCS11_MODULE, Card, wait_for

KEY_PROCESSORS = ("soft",)
ROOT = pathlib.Path(__file__).resolve().parents[2]
POLICY = ROOT / "platform" / "key_processor" / "org.keyloft.policy"
POLKITD = "/usr/lib/polkit-1/polkitd"
USER = "keyloft-presence"

BUS_CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
  </policy>
</busconfig>
"""

# polkit.spawn reads the answer at every check, so a test changes it without polkitd reloading.
RULES = """polkit.addRule(function(action, subject) {{
    if (action.id != "org.keyloft.use-key") return null;
    var answer = polkit.spawn(["/bin/cat", "{answer}"]).trim();
    if (answer == "yes") return polkit.Result.YES;
    if (answer == "no") return polkit.Result.NO;
    return polkit.Result.AUTH_SELF;
}});
"""


def unavailable(message):
    if os.environ.get("CI") == "true":
        pytest.fail(message)
    pytest.skip(message)


class Desktop:
    """A private system bus with polkitd on it, and an unprivileged user to ask it for."""

    def __init__(self, folder: pathlib.Path):
        self.folder = folder
        self.address = f"unix:path={folder / 'bus'}"
        self.answer_file = folder / "answer"
        self.polkit = None
        self.user = pwd.getpwnam(USER)
        # The user reaches the built tool and module through copies in a folder it may read.
        self.keyloft = str(folder / "keyloft")
        self.module = str(folder / "libkeyloft-pkcs11.so")
        shutil.copy(KEYLOFT, self.keyloft)
        shutil.copy(PKCS11_MODULE, self.module)

    def answer(self, word):
        self.answer_file.write_text(word + "\n")

    def start_polkit(self):
        rules, actions = self.folder / "rules.d", self.folder / "actions"
        script = (f"mount --bind {rules} /etc/polkit-1/rules.d && "
                  f"mount --bind {actions} /usr/share/polkit-1/actions && "
                  f"exec {POLKITD} --no-debug")
        self.polkit = subprocess.Popen(
            ["unshare", "--mount", "--propagation", "private", "sh", "-c", script],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env=dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.address), start_new_session=True)
        wait_for(lambda: self.owned("org.freedesktop.PolicyKit1"), "polkitd", self.polkit)

    def stop_polkit(self):
        if self.polkit is not None:
            self.polkit.terminate()
            self.polkit.wait(timeout=10)
            self.polkit = None
        assert not self.owned("org.freedesktop.PolicyKit1")

    def owned(self, name):
        answer = subprocess.run(
            ["dbus-send", f"--bus={self.address}", "--print-reply", "--dest=org.freedesktop.DBus",
             "/org/freedesktop/DBus", "org.freedesktop.DBus.NameHasOwner", f"string:{name}"],
            capture_output=True, text=True)
        return "boolean true" in answer.stdout

    def card(self):
        home = pathlib.Path(tempfile.mkdtemp(dir=self.folder))
        os.chmod(home, 0o755)
        os.chown(home, self.user.pw_uid, self.user.pw_gid)
        return Card(home)

    def run(self, card, *args, bus=None, loads_module=True):
        """Runs a program as the user, without a controlling terminal."""
        environment = card.client_env if loads_module else card.env
        env = environment(DBUS_SYSTEM_BUS_ADDRESS=bus or self.address)
        return subprocess.run(args, capture_output=True, text=True, errors="replace",
                              cwd=card.home, env=env, timeout=120, start_new_session=True,
                              user=self.user.pw_uid, group=self.user.pw_gid, extra_groups=[])

    def tool(self, card, *args, **kwargs):
        result = self.run(card, self.keyloft, *args, loads_module=False, **kwargs)
        assert result.returncode == 0, result
        return result.stdout

    def sign(self, card, key_id, **kwargs):
        message = card.home / "message"
        message.write_bytes(b"presence")
        return self.run(card, "pkcs11-tool", "--module", self.module, "--sign", "-m",
                        "ECDSA-SHA256", "--id", key_id, "-i", str(message), "-o",
                        str(card.home / f"signature-{os.urandom(4).hex()}"), **kwargs)


@pytest.fixture(scope="module")
def desktop(tmp_path_factory):
    if os.geteuid() != 0:
        unavailable("the desktop presence tests run polkitd and a user of their own, as root")
    missing = [tool for tool in ("dbus-daemon", "dbus-send", "unshare", "useradd", "pkcs11-tool")
               if shutil.which(tool, path=os.pathsep.join([os.environ["PATH"], "/usr/sbin"]))
               is None]
    if not os.access(POLKITD, os.X_OK):
        missing.append(POLKITD)
    if missing:
        unavailable(f"missing {', '.join(missing)} (scripts/install-dependencies.sh)")
    try:
        pwd.getpwnam(USER)
    except KeyError:
        subprocess.run(["useradd", "--system", "--no-create-home", "--shell",
                        "/usr/sbin/nologin", USER], check=True)
    # Readable by the user and by polkitd, which may run as a user of its own.
    folder = pathlib.Path(tempfile.mkdtemp(prefix="keyloft-desktop-"))
    os.chmod(folder, 0o755)
    for sub in ("rules.d", "actions"):
        (folder / sub).mkdir(mode=0o755)
    shutil.copy(POLICY, folder / "actions")
    (folder / "rules.d" / "50-keyloft-test.rules").write_text(
        RULES.format(answer=folder / "answer"))
    (folder / "bus.conf").write_text(BUS_CONFIGURATION.format(socket=folder / "bus"))
    for path in folder.rglob("*"):
        path.chmod(0o755 if path.is_dir() else 0o644)

    daemon = subprocess.Popen(["dbus-daemon", f"--config-file={folder / 'bus.conf'}", "--nofork",
                               "--nopidfile", "--nosyslog"], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              start_new_session=True)
    environment = None
    try:
        wait_for(lambda: (folder / "bus").exists(), "dbus-daemon", daemon)
        environment = Desktop(folder)
        environment.start_polkit()
        yield environment
    finally:
        if environment is not None and environment.polkit is not None:
            environment.stop_polkit()
        daemon.terminate()
        daemon.wait(timeout=10)
        shutil.rmtree(folder, ignore_errors=True)
        subprocess.run(["userdel", USER], check=False, capture_output=True)


@pytest.fixture
def polkit(desktop):
    """polkit running, whatever an earlier test did to it."""
    if desktop.polkit is None:
        desktop.start_polkit()
    return desktop


def hashes(desktop, card):
    return re.findall(r"\b[0-9A-Fa-f]{40}\b", desktop.tool(card, "list-identities"))


@pytest.mark.parametrize("answer, allowed", [("yes", True), ("no", False),
                                             ("authenticate", False)])
def test_the_tool_follows_polkit(polkit, answer, allowed):
    card = polkit.card()
    polkit.answer(answer)
    output = polkit.tool(card, "create-identity", "-l", "Desk", "-k", "p-256-ne", "-prot", "bio")
    if allowed:
        assert output == "" and len(hashes(polkit, card)) == 1
    else:
        assert output.startswith(
            "Error: User presence could not be confirmed: no controlling terminal, and ")
        assert card.config_data() is None or card.items() == []


@pytest.fixture(scope="module")
def protected_key(desktop):
    """A card holding one "-prot bio" identity, made with polkit's yes."""
    if desktop.polkit is None:
        desktop.start_polkit()
    card = desktop.card()
    desktop.answer("yes")
    assert desktop.tool(card, "create-identity", "-l", "Desk", "-k", "p-256", "-prot", "bio") == ""
    (key_hash,) = hashes(desktop, card)
    return card, key_hash


@pytest.mark.parametrize("answer, signs", [("yes", True), ("no", False), ("authenticate", False),
                                           ("yes", True)])
def test_pkcs11_signature_follows_polkit(polkit, protected_key, answer, signs):
    card, key_hash = protected_key
    polkit.answer(answer)
    result = polkit.sign(card, key_hash)
    assert (result.returncode == 0) == signs, result
    # The application is told the user refused (CKR_FUNCTION_REJECTED, which Debian 12's
    # pkcs11-tool prints by number), not that the token failed.
    assert signs or "rv = unknown PKCS11 error (0x200)" in result.stderr, result


@pytest.mark.parametrize("bus", ["running bus, polkit stopped", "no bus"])
def test_no_polkit_means_refused(desktop, protected_key, bus):
    card, key_hash = protected_key
    desktop.answer("yes")
    if bus == "no bus":
        result = desktop.sign(card, key_hash, bus=f"unix:path={desktop.folder / 'nothing'}")
        assert result.returncode != 0, result
        refused = desktop.tool(card, "create-csr", "-h", key_hash, "-f", "request",
                               bus=f"unix:path={desktop.folder / 'nothing'}")
        assert "cannot be reached" in refused, refused
    else:
        desktop.stop_polkit()
        result = desktop.sign(card, key_hash)
        assert result.returncode != 0, result
        refused = desktop.tool(card, "create-csr", "-h", key_hash, "-f", "request")
        assert "is not running" in refused, refused
    assert not (card.home / "request.csr").exists()


def test_one_confirmation_covers_a_program_for_the_grace_period(polkit, protected_key):
    """A browser signs once per TLS handshake: within the settings' grace period the same
    program's next use of the key is not asked again (the rule's "no" goes unread); after it, the
    key asks, and the "no" refuses."""
    card, key_hash = protected_key
    settings = card.home / ".config" / "keyloft"
    settings.mkdir(parents=True, exist_ok=True)
    (settings / "keyloft.conf").write_text("# one page load\npresence_grace_seconds = 2\n")
    for path in (card.home / ".config", settings, settings / "keyloft.conf"):
        os.chown(path, polkit.user.pw_uid, polkit.user.pw_gid)
    session = subprocess.Popen(
        [sys.executable, str(pathlib.Path(__file__).with_name("pkcs11_session.py")), polkit.module],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, cwd=card.home,
        env=card.client_env(DBUS_SYSTEM_BUS_ADDRESS=polkit.address), start_new_session=True,
        user=polkit.user.pw_uid, group=polkit.user.pw_gid, extra_groups=[])

    def ask(line):
        session.stdin.write(line + "\n")
        session.stdin.flush()
        return json.loads(session.stdout.readline())

    try:
        assert [key_hash.lower()] == [id_ for _, id_ in ask("find")]
        polkit.answer("yes")
        assert isinstance(ask(f"sign-found {key_hash.lower()} {'11' * 32}"), str)
        polkit.answer("no")
        assert isinstance(ask(f"sign-found {key_hash.lower()} {'22' * 32}"), str)
        time.sleep(2.5)
        assert ask(f"sign-found {key_hash.lower()} {'33' * 32}") == {"error": "CKR_FUNCTION_REJECTED"}
    finally:
        session.stdin.close()
        session.wait(timeout=60)
        (settings / "keyloft.conf").unlink()
