"""Shared fixtures: run the built keyloft in a private HOME and read its state independently."""
import os
import pathlib
import plistlib
import pty
import select
import shutil
import socket
import time
import sqlite3
import subprocess

import pytest

KEYLOFT = os.environ.get("KEYLOFT") or str(
    pathlib.Path(__file__).resolve().parents[2] / "build" / "keyloft")
PAM_CONFDIR = os.environ.get("KEYLOFT_TEST_PAM_CONFDIR", "")
PKCS11_MODULE = os.environ.get("KEYLOFT_PKCS11") or str(
    pathlib.Path(__file__).resolve().parents[2] / "build" / "pkcs11" / "libkeyloft-pkcs11.so")
# What an instrumented module needs preloaded (an LD_PRELOAD list) into programs that are not.
PKCS11_PRELOAD = os.environ.get("KEYLOFT_PKCS11_PRELOAD", "")
# The key processor the running tests use, as environment variables: every environment the tests
# make for the tool or the module carries it. Set by the key_processor fixture.
KEY_PROCESSOR_ENV = {}


class Card:
    """One user's card: a temporary HOME, the tool run in it, and readers for its state."""

    def __init__(self, home: pathlib.Path):
        self.home = home
        self.data_home = home / "data"
        self.folder = self.data_home / "keyloft"
        self.db_path = self.folder / "tokens.db"

    def env(self, **extra):
        """The tool's environment; an extra variable given as None is left out."""
        env = {k: v for k, v in os.environ.items() if not k.startswith("XDG_")}
        env.update(HOME=str(self.home), XDG_DATA_HOME=str(self.data_home), LC_ALL="C.UTF-8",
                   TZ="UTC")
        env.update(KEY_PROCESSOR_ENV)
        env.update(extra)
        return {k: v for k, v in env.items() if v is not None}

    def run(self, *args, stdin=None, cwd=None, **env):
        """Runs keyloft without a controlling terminal; returns the CompletedProcess."""
        result = subprocess.run([KEYLOFT, *args], input=stdin, capture_output=True, text=True,
                                cwd=cwd or self.home, env=self.env(**env), timeout=120,
                                start_new_session=True)
        assert result.returncode == 0, result
        return result

    def run_on_terminal(self, *args, answers=(), **env):
        """Runs keyloft with a pseudo-terminal as its controlling terminal, typing each answer
        once a new prompt (a line ending in ":") appears; returns what it wrote there."""
        pid, fd = pty.fork()
        if pid == 0:
            os.chdir(self.home)
            os.execve(KEYLOFT, [KEYLOFT, *args], self.env(**env))
        output, pending, answered_at = b"", list(answers), 0
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline:
            ready, _, _ = select.select([fd], [], [], 1)
            if not ready:
                continue
            try:
                chunk = os.read(fd, 4096)
            except OSError:
                break
            if not chunk:
                break
            output += chunk
            if pending and output[answered_at:].rstrip().endswith(b":"):
                os.write(fd, pending.pop(0) + b"\n")
                answered_at = len(output)
        os.close(fd)
        _, status = os.waitpid(pid, 0)
        assert os.waitstatus_to_exitcode(status) == 0, output
        return output.decode(errors="replace").replace("\r\n", "\n")

    def out(self, *args, **kwargs):
        return self.run(*args, **kwargs).stdout

    def client_env(self, **extra):
        """The environment of a program that loads the PKCS#11 module; the host program's own
        leaks are not the module's, so leak checking is off there."""
        if PKCS11_PRELOAD:
            asan = os.environ.get("ASAN_OPTIONS", "")
            extra = dict(LD_PRELOAD=PKCS11_PRELOAD,
                         ASAN_OPTIONS=f"{asan}:detect_leaks=0" if asan else "detect_leaks=0",
                         **extra)
        return self.env(**extra)

    def client(self, *args, check=True, stdin=None, **env):
        """Runs a program that loads the PKCS#11 module; returns the CompletedProcess."""
        result = subprocess.run(args, input=stdin, capture_output=True, text=True,
                                errors="replace", cwd=self.home, env=self.client_env(**env),
                                timeout=120, start_new_session=True)
        assert not check or result.returncode == 0, f"{args}\n{result.stdout}\n{result.stderr}"
        return result

    def db(self):
        return sqlite3.connect(f"file:{self.db_path}?mode=ro", uri=True)

    def db_rw(self):
        return sqlite3.connect(self.db_path)

    def sql(self, *statements):
        """Changes the store behind the tool's back, as another program could."""
        with self.db_rw() as db:
            for statement in statements:
                db.execute(statement)

    def items(self):
        with self.db() as db:
            return db.execute(
                "SELECT kind, object_id, label, certificate, can_sign, can_decrypt,"
                " can_key_exchange FROM items WHERE driver='org.keyloft.token' AND instance='user'"
                " ORDER BY position").fetchall()

    def config_data(self):
        with self.db() as db:
            row = db.execute("SELECT config_data FROM tokens WHERE driver='org.keyloft.token'"
                             " AND instance='user'").fetchone()
        return None if row is None else row[0]

    def records(self):
        """The stored-key records as {hash bytes: dict}, read with Python's plistlib."""
        data = self.config_data()
        if data is None:
            return None
        root = plistlib.loads(data)
        pairs = root["keys"]
        return {pairs[i]: pairs[i + 1] for i in range(0, len(pairs), 2)}


@pytest.fixture
def presence():
    """Sets what the test build's PAM configuration answers for the service "keyloft"."""
    if not PAM_CONFDIR:
        pytest.skip("the tool was built without a test PAM configuration folder")
    folder = pathlib.Path(PAM_CONFDIR)
    folder.mkdir(parents=True, exist_ok=True)

    def answer(module):
        (folder / "keyloft").write_text(f"auth required {module}\naccount required pam_permit.so\n")
    return answer


@pytest.fixture
def card(tmp_path):
    home = tmp_path / "home"
    home.mkdir()
    return Card(home)


def pytest_generate_tests(metafunc):
    """Every test runs once per key processor; a module may name fewer in KEY_PROCESSORS."""
    if "key_processor" in metafunc.fixturenames:
        metafunc.parametrize("key_processor",
                             getattr(metafunc.module, "KEY_PROCESSORS", ("soft", "tpm")),
                             indirect=True, scope="session")


@pytest.fixture(scope="session", autouse=True)
def key_processor(request):
    """"soft", forced through the environment, or "tpm", on the session's software TPM."""
    env = ({"KEYLOFT_KEY_PROCESSOR": "soft"} if request.param == "soft"
           else request.getfixturevalue("software_tpm"))
    KEY_PROCESSOR_ENV.clear()
    KEY_PROCESSOR_ENV.update(env)
    yield request.param
    KEY_PROCESSOR_ENV.clear()


def free_port_pair():
    """A free local port whose next port is free too (swtpm's command and control ports)."""
    for _ in range(50):
        with socket.socket() as first:
            first.bind(("127.0.0.1", 0))
            port = first.getsockname()[1]
            with socket.socket() as second:
                try:
                    second.bind(("127.0.0.1", port + 1))
                except OSError:
                    continue
        return port
    raise RuntimeError("no two free neighbouring ports")


def wait_for(condition, what, process, seconds=10):
    deadline = time.monotonic() + seconds
    while not condition():
        if process.poll() is not None or time.monotonic() > deadline:
            raise RuntimeError(f"{what} did not start: {process.args}")
        time.sleep(0.05)


class TpmServices:
    """swtpm simulators, each behind a tpm2-abrmd of its own on one private D-Bus, stopped
    together. The resource manager lets many processes share a simulator, as the kernel's does
    with a real TPM, and drops what a killed process left loaded."""

    def __init__(self, folder):
        search = os.pathsep.join([os.environ.get("PATH", ""), "/usr/sbin", "/sbin"])
        self.tools = {name: shutil.which(name, path=search) for name in
                      ("swtpm", "tpm2-abrmd", "dbus-daemon", "dbus-send")}
        self.missing = [name for name, path in self.tools.items() if path is None]
        self.folder = folder
        self.bus = f"unix:path={folder / 'bus'}"
        self.processes = []
        self.count = 0

    def spawn(self, *args):
        self.processes.append(subprocess.Popen(
            args, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env=dict(os.environ, DBUS_SESSION_BUS_ADDRESS=self.bus), start_new_session=True))
        return self.processes[-1]

    def start_bus(self):
        daemon = self.spawn(self.tools["dbus-daemon"], "--session", "--nofork", "--nosyslog",
                            f"--address={self.bus}")
        wait_for(lambda: (self.folder / "bus").exists(), "dbus-daemon", daemon)

    def owned(self, name):
        answer = subprocess.run(
            [self.tools["dbus-send"], "--session", "--print-reply",
             "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
             "org.freedesktop.DBus.NameHasOwner", f"string:{name}"],
            capture_output=True, text=True, env=dict(os.environ, DBUS_SESSION_BUS_ADDRESS=self.bus))
        return "boolean true" in answer.stdout

    def start(self, *manager_options):
        """A fresh simulator and its resource manager, with the options given; the environment
        that reaches it, and the manager's process."""
        self.count += 1
        state = self.folder / f"state{self.count}"
        state.mkdir()
        name = f"com.intel.tss2.Tabrmd.keyloft{os.getpid()}n{self.count}"
        port = free_port_pair()

        def accepts(port_):
            with socket.socket() as probe:
                return probe.connect_ex(("127.0.0.1", port_)) == 0
        simulator = self.spawn(self.tools["swtpm"], "socket", "--tpm2", "--tpmstate",
                               f"dir={state}", "--server",
                               f"type=tcp,bindaddr=127.0.0.1,port={port}", "--ctrl",
                               f"type=tcp,bindaddr=127.0.0.1,port={port + 1}", "--flags",
                               "not-need-init,startup-clear")
        # The control port: a probe of the command port would hold swtpm's one client slot.
        wait_for(lambda: accepts(port + 1), "swtpm", simulator)
        manager = self.spawn(self.tools["tpm2-abrmd"], "--session", f"--dbus-name={name}",
                             f"--tcti=swtpm:host=127.0.0.1,port={port}", "--flush-all",
                             *(["--allow-root"] if os.geteuid() == 0 else []), *manager_options)
        wait_for(lambda: self.owned(name), "tpm2-abrmd", manager)
        return ({"KEYLOFT_TCTI": f"tabrmd:bus_name={name},bus_type=session",
                 "DBUS_SESSION_BUS_ADDRESS": self.bus}, manager)

    def stop(self):
        for process in reversed(self.processes):
            process.terminate()
            try:
                process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()


@pytest.fixture(scope="session")
def tpm_services(tmp_path_factory):
    services = TpmServices(tmp_path_factory.mktemp("tpm"))
    if services.missing:
        message = (f"the TPM tests need {', '.join(services.missing)} "
                   "(scripts/install-dependencies.sh)")
        if os.environ.get("CI") == "true":
            pytest.fail(message)
        pytest.skip(message)
    try:
        services.start_bus()
        yield services
    finally:
        services.stop()


@pytest.fixture(scope="session")
def software_tpm(tpm_services):
    """The session's simulator behind tpm2-abrmd; the environment that reaches it."""
    env, _ = tpm_services.start()
    return env


def engine_config(folder, module):
    """An OpenSSL configuration file that loads the pkcs11 engine with the module."""
    config = folder / "engine.cnf"
    config.write_text(f"""openssl_conf = openssl_init
[openssl_init]
engines = engine_section
[engine_section]
pkcs11 = pkcs11_section
[pkcs11_section]
engine_id = pkcs11
MODULE_PATH = {module}
init = 0
""")
    return str(config)
