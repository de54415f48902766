"""The data folder under change and attack: a module that stays loaded follows the card when its
folder is removed, renamed or replaced, and neither the tool nor the module uses a folder, store
or device key that another user planted or may change."""
import hashlib
import json
import os
import pathlib
import shutil
import subprocess
import sys

import pytest

from conftest import PKCS11_MODULE, Card

if not pathlib.Path(PKCS11_MODULE).exists():
    pytest.skip(f"no PKCS#11 module at {PKCS11_MODULE}", allow_module_level=True)

# The device key exists only under the soft key processor.
KEY_PROCESSORS = ("soft",)
NOBODY = 65534
DIGEST = hashlib.sha256(b"message").hexdigest()
INVALID_KEY = ({"error": "CKR_KEY_HANDLE_INVALID"}, {"error": "CKR_OBJECT_HANDLE_INVALID"})


class Session:
    """The module loaded by one long-lived client, asked one line at a time."""

    def __init__(self, card):
        self.process = subprocess.Popen(
            [sys.executable, pathlib.Path(__file__).with_name("pkcs11_session.py"), PKCS11_MODULE],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            cwd=card.home, env=card.client_env(), start_new_session=True)

    def ask(self, *command):
        self.process.stdin.write(" ".join(command) + "\n")
        self.process.stdin.flush()
        line = self.process.stdout.readline()
        if not line:
            raise RuntimeError(f"the session ended: {self.process.stderr.read()[-2000:]}")
        return json.loads(line)

    def find(self):
        return sorted(label for label, _ in self.ask("find"))

    def close(self):
        self.process.stdin.close()
        try:
            assert self.process.wait(timeout=60) == 0, self.process.stderr.read()[-2000:]
        finally:
            if self.process.poll() is None:
                os.killpg(self.process.pid, 9)
                self.process.wait()


@pytest.fixture
def session(card):
    opened = []

    def start():
        opened.append(Session(card))
        return opened[-1]
    yield start
    for each in opened:
        each.close()


def make_card(home, *labels):
    home.mkdir()
    card = Card(home)
    for label in labels:
        card.run("create-identity", "-l", label, "-k", "p-256", "-CN", label)
    return card


def key_id(card, label):
    return next(object_id.hex() for kind, object_id, name, *_ in card.items()
                if kind == "key" and name == label)


def remove(card, tmp_path):
    shutil.rmtree(card.folder)


def rename_away(card, tmp_path):
    card.folder.rename(tmp_path / "keyloft.old")


def replace_by_another_card(card, tmp_path):
    other = make_card(tmp_path / "other", "Other")
    card.folder.rename(tmp_path / "keyloft.old")
    shutil.copytree(other.folder, card.folder)


def restore_an_older_copy(card, tmp_path):
    shutil.copytree(card.folder, tmp_path / "backup")
    card.run("create-identity", "-l", "Later", "-k", "p-256", "-CN", "Later")
    shutil.rmtree(card.folder)
    shutil.copytree(tmp_path / "backup", card.folder)


def link_to_another_card(card, tmp_path):
    other = make_card(tmp_path / "other", "Other")
    card.folder.rename(tmp_path / "keyloft.old")
    card.folder.symlink_to(other.folder)


# What each change does to the card, what the loaded module then finds, and what it finds once
# the tool made an identity again.
@pytest.mark.parametrize("change, found, then", [
    (remove, [], ["Again"]),
    (rename_away, [], ["Again"]),
    (replace_by_another_card, ["Other"], ["Again", "Other"]),
    (restore_an_older_copy, ["Mine"], ["Again", "Mine"]),
    (link_to_another_card, ["Other"], ["Again", "Other"]),
])
def test_a_loaded_module_follows_the_folder(card, session, tmp_path, change, found, then):
    card.run("create-identity", "-l", "Mine", "-k", "p-256", "-CN", "Mine")
    mine = key_id(card, "Mine")
    client = session()
    assert client.find() == ["Mine"]
    change(card, tmp_path)
    assert client.find() == found
    if "Mine" not in found:
        assert client.ask("sign-found", mine, DIGEST) in INVALID_KEY
    card.run("create-identity", "-l", "Again", "-k", "p-256", "-CN", "Again")
    assert client.find() == then
    if "Mine" in found:
        client.ask("find")
        assert len(bytes.fromhex(client.ask("sign-found", mine, DIGEST))) == 64


def chown(*paths):
    for path in paths:
        os.chown(path, NOBODY, NOBODY, follow_symlinks=False)


def plant_linked_folder(card, tmp_path):
    """The folder's name a link to a folder of another user's, holding that user's files."""
    planted = tmp_path / "planted"
    card.folder.rename(planted)
    chown(planted, *planted.iterdir())
    card.folder.symlink_to(planted)


FOLDER, STORE, KEY = "data folder", "token store", "device key"
# What is done to the card, and the refusal's subject and reason.
UNSAFE = {
    "folder of another user": (lambda card, _: chown(card.folder), FOLDER,
                               "belongs to another user"),
    "folder writable by the group": (lambda card, _: card.folder.chmod(0o770), FOLDER,
                                     "is writable by other users"),
    "folder writable by all": (lambda card, _: card.folder.chmod(0o1777), FOLDER,
                               "is writable by other users"),
    "link to a folder of another user": (plant_linked_folder, FOLDER, "belongs to another user"),
    "store of another user": (lambda card, _: chown(card.db_path), STORE,
                              "belongs to another user"),
    "store writable by all": (lambda card, _: card.db_path.chmod(0o666), STORE,
                              "is writable by other users"),
    "device key of another user": (lambda card, _: chown(card.folder / "bastion.key"), KEY,
                                   "belongs to another user"),
    "device key readable by all": (lambda card, _: (card.folder / "bastion.key").chmod(0o644),
                                   KEY, "is readable by other users"),
    "device key writable by the group": (
        lambda card, _: (card.folder / "bastion.key").chmod(0o620), KEY,
        "is writable by other users"),
}


def state(folder):
    """Every file of the folder, links followed, with its owner, mode and bytes."""
    files = {".": os.stat(folder)[:5]}
    for path in sorted(folder.rglob("*")):
        files[str(path.relative_to(folder))] = (os.stat(path)[:5], path.read_bytes())
    return files


@pytest.mark.skipif(os.geteuid() != 0, reason="giving a file to another user needs root")
@pytest.mark.parametrize("unsafe", UNSAFE, ids=list(UNSAFE))
def test_a_card_another_user_can_change_is_refused(card, session, tmp_path, unsafe):
    plant, what, reason = UNSAFE[unsafe]
    card.run("create-identity", "-l", "Mine", "-k", "p-256", "-CN", "Mine")
    client = session()
    assert client.find() == ["Mine"]
    plant(card, tmp_path)
    path = {FOLDER: card.folder, STORE: card.db_path, KEY: card.folder / "bastion.key"}[what]
    refusal = f"Error: The {what} '{path}' {reason}; refusing to use it\n"

    before = state(card.folder)
    for command in (["list-identities"],
                    ["create-identity", "-l", "New", "-k", "p-256", "-CN", "New"]):
        assert card.out(*command) == refusal
    assert state(card.folder) == before

    # The loaded module drops the card, and one loaded now never shows it.
    assert client.find() == []
    assert client.ask("sign-found", key_id(card, "Mine"), DIGEST) in INVALID_KEY
    assert session().find() == []
