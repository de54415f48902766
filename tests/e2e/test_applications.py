"""The recipes of docs/applications.md, each run with the real program against a local peer: the
browsers and command-line TLS clients log in to `openssl s_server -Verify 1` with a certificate a
test CA issued to the card's key (the server's log shows the client certificate verified, which
TLS 1.3 accepts only after the key's signature checks out), git signs and verifies a commit through
ssh-agent, and openssl cms signs a message that verifies.

Browsers and agents load an unsanitized module: KEYLOFT_PKCS11_PLAIN, which scripts/test.sh
builds; without it these tests fail and say so."""
import json
import os
import pathlib
import shutil
import socket
import subprocess
import time

import pytest

from conftest import PKCS11_MODULE, PKCS11_PRELOAD, Card, engine_config

PLAIN_MODULE = os.environ.get("KEYLOFT_PKCS11_PLAIN") or ("" if PKCS11_PRELOAD else PKCS11_MODULE)
P11_KIT_PROXY = "/usr/lib/x86_64-linux-gnu/p11-kit-proxy.so"
SECONDS = 120  # a headless browser can hang on an error page: every run is bounded


def run(*args, **kwargs):
    return subprocess.run(args, capture_output=True, text=True, timeout=SECONDS, check=True,
                          **kwargs)


@pytest.fixture(scope="module")
def web(tmp_path_factory, key_processor):
    """A card whose key-processor identity "Web" holds a certificate issued by a test CA, and the
    CA's and a TLS server's files."""
    if not pathlib.Path(PLAIN_MODULE or "/nonexistent").exists():
        pytest.fail("no unsanitized PKCS#11 module: set KEYLOFT_PKCS11_PLAIN (scripts/test.sh "
                    "builds one in build-release)")
    folder = tmp_path_factory.mktemp("pki")
    card = Card(folder / "home")
    card.home.mkdir()
    card.run("create-identity", "-l", "Web", "-k", "p-256-ne", "-CN", "Web")
    hash_ = card.items()[0][1].hex()
    card.run("create-csr", "-h", hash_, "-f", str(folder / "web"), "-CN", "Web",
             "-E", "web@example.com")

    def issue(name, request, extensions):
        (folder / f"{name}.ext").write_text(extensions)
        run("openssl", "x509", "-req", "-in", request, "-CA", "ca.pem", "-CAkey", "ca.key",
            "-out", f"{name}.pem", "-days", "2", "-extfile", f"{name}.ext", cwd=folder)

    run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
        "-nodes", "-keyout", "ca.key", "-out", "ca.pem", "-subj", "/CN=Test CA", "-days", "2",
        cwd=folder)
    issue("web", "web.csr", "extendedKeyUsage=clientAuth,emailProtection\n"
                            "subjectAltName=email:web@example.com\n")
    run("openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
        "-keyout", "server.key", "-out", "server.csr", "-subj", "/CN=127.0.0.1", cwd=folder)
    issue("server", "server.csr", "subjectAltName=IP:127.0.0.1\nextendedKeyUsage=serverAuth\n")
    card.run("import-certificate", "-f", str(folder / "web.pem"))
    card.folder_pki = folder
    return card


def nss_database(folder, ca):
    """An NSS database that knows the module and trusts the test CA, as modutil and certutil
    make it."""
    folder.mkdir(parents=True, exist_ok=True)
    run("certutil", "-N", "-d", f"sql:{folder}", "--empty-password")
    run("modutil", "-dbdir", f"sql:{folder}", "-add", "keyloft", "-libfile", PLAIN_MODULE,
        "-force", input="\n")
    run("certutil", "-A", "-d", f"sql:{folder}", "-n", "Test CA", "-t", "CT,,", "-i", ca)


def logs_in(web, client, *args, **env):
    """Runs the client against a fresh `openssl s_server -Verify 1 -www` and tells whether the
    server verified the card's certificate; the client's output goes into the assertion."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    pki = web.folder_pki
    log = pki / f"server-{port}.log"
    with open(log, "w") as out:
        server = subprocess.Popen(
            ["openssl", "s_server", "-accept", str(port), "-cert", "server.pem", "-key",
             "server.key", "-Verify", "1", "-CAfile", "ca.pem", "-www"],
            stdout=out, stderr=subprocess.STDOUT, cwd=pki)
    try:
        deadline = time.monotonic() + 10
        while "ACCEPT" not in log.read_text() and time.monotonic() < deadline:
            time.sleep(0.05)
        url = f"https://127.0.0.1:{port}/"
        result = subprocess.run([client, *[a.replace("{url}", url).replace("{port}", str(port))
                                           for a in args]],
                                capture_output=True, text=True, timeout=SECONDS,
                                env=web.env(**env), cwd=pki)
    finally:
        server.terminate()
        server.wait(timeout=30)
    text = log.read_text()
    assert "depth=0 CN = Web, emailAddress = web@example.com\nverify return:1" in text, (result, text)
    return result


@pytest.fixture
def system_file(request):
    """Writes files where a program reads its system-wide configuration (policies, p11-kit
    modules), which only root can; each is removed after the test."""
    if os.getuid() != 0:
        pytest.fail("the browser and p11-kit recipes write system configuration: run as root")
    written = []

    def write(path, text):
        path = pathlib.Path(path)
        path.parent.mkdir(parents=True, exist_ok=True)
        assert not path.exists(), f"{path} exists already"
        path.write_text(text)
        written.append(path)

    yield write
    for path in written:
        path.unlink()


@pytest.mark.parametrize("setup", ["modutil", "policy"])
def test_firefox(web, tmp_path, system_file, setup):
    profile = tmp_path / "profile"
    pki = web.folder_pki
    choose = "security.default_personal_cert"
    if setup == "modutil":
        nss_database(profile, pki / "ca.pem")
        (profile / "user.js").write_text(f'user_pref("{choose}", "Select Automatically");\n')
    else:
        profile.mkdir()
        system_file("/etc/firefox/policies/policies.json", json.dumps({"policies": {
            "SecurityDevices": {"keyloft": PLAIN_MODULE},
            "Certificates": {"Install": [str(pki / "ca.pem")]},
            "Preferences": {choose: {"Value": "Select Automatically", "Status": "locked"}}}}))
    logs_in(web, "firefox-esr", "--headless", "--no-remote", "--profile", str(profile),
            "--screenshot", str(tmp_path / "page.png"), "{url}")


@pytest.mark.parametrize("setup", ["nss", "p11-kit-proxy"])
def test_chromium(web, system_file, setup):
    database = web.home / ".pki" / "nssdb"
    shutil.rmtree(database, ignore_errors=True)
    if setup == "nss":
        nss_database(database, web.folder_pki / "ca.pem")
    else:
        system_file("/etc/pkcs11/modules/keyloft-test.module", f"module: {PLAIN_MODULE}\n")
        database.mkdir(parents=True)
        run("certutil", "-N", "-d", f"sql:{database}", "--empty-password")
        run("modutil", "-dbdir", f"sql:{database}", "-add", "p11-kit-proxy", "-libfile",
            P11_KIT_PROXY, "-force", input="\n")
        run("certutil", "-A", "-d", f"sql:{database}", "-n", "Test CA", "-t", "CT,,", "-i",
            web.folder_pki / "ca.pem")
    # Without a policy choosing it, Chromium asks which certificate to send.
    system_file("/etc/chromium/policies/managed/keyloft-test.json", json.dumps(
        {"AutoSelectCertificateForUrls": ['{"pattern":"https://127.0.0.1:*","filter":{}}']}))
    page = logs_in(web, "chromium", "--headless=new", "--no-sandbox", "--disable-gpu",
                   "--dump-dom", "{url}").stdout
    assert "Client certificate" in page


CERT = "pkcs11:token=keyloft;object=Web;type=cert"
KEY = "pkcs11:token=keyloft;object=Web;type=private"


def test_curl_with_pkcs11_uris(web, tmp_path):
    page = logs_in(web, "curl", "-sS", "--cacert", "ca.pem", "--engine", "pkcs11",
                   "--cert-type", "ENG", "--cert", CERT, "--key-type", "ENG", "--key", KEY,
                   "{url}", OPENSSL_CONF=engine_config(tmp_path, PLAIN_MODULE)).stdout
    assert "Client certificate" in page


def test_gnutls_cli(web):
    result = logs_in(web, "sh", "-c",
                     f"printf 'GET / HTTP/1.0\\r\\n\\r\\n' | gnutls-cli --provider {PLAIN_MODULE} "
                     f"--x509cafile ca.pem --x509certfile '{CERT}' --x509keyfile '{KEY}' "
                     "-p {port} 127.0.0.1", GNUTLS_PIN="0000")
    assert "Client certificate" in result.stdout


def test_openssl_cms_signs_mail(web, tmp_path):
    pki = web.folder_pki
    (tmp_path / "mail.txt").write_text("Hello\n")
    run("openssl", "cms", "-sign", "-engine", "pkcs11", "-keyform", "engine", "-inkey", KEY,
        "-signer", pki / "web.pem", "-in", "mail.txt", "-out", "mail.p7s", "-outform", "PEM",
        cwd=tmp_path, env=web.env(OPENSSL_CONF=engine_config(tmp_path, PLAIN_MODULE)))
    verified = run("openssl", "cms", "-verify", "-CAfile", pki / "ca.pem", "-in", "mail.p7s",
                   "-inform", "PEM", "-content", "mail.txt", "-purpose", "smimesign", cwd=tmp_path)
    assert "Verification successful" in verified.stderr


def test_git_signs_commits_through_ssh_agent(web, tmp_path):
    askpass = tmp_path / "askpass"
    askpass.write_text("#!/bin/sh\necho\n")  # the card has no PIN: any answer is taken
    askpass.chmod(0o755)
    agent = subprocess.run(["ssh-agent", "-s", "-P", PLAIN_MODULE], capture_output=True,
                           text=True, timeout=SECONDS, check=True, env=web.env()).stdout
    variables = dict(line.split(";")[0].split("=", 1) for line in agent.splitlines()
                     if line.startswith("SSH_"))
    env = web.env(**variables, SSH_ASKPASS=str(askpass), SSH_ASKPASS_REQUIRE="force",
                  DISPLAY=":0", GIT_CONFIG_NOSYSTEM="1")
    try:
        run("ssh-add", "-s", PLAIN_MODULE, env=env, stdin=subprocess.DEVNULL)
        (public,) = [" ".join(line.split()[:2]) for line in
                     run("ssh-add", "-L", env=env).stdout.splitlines() if line.endswith(" Web")]
        (tmp_path / "allowed_signers").write_text(f"web@example.com {public}\n")
        repo = tmp_path / "repo"
        run("git", "init", "-q", str(repo), env=env)
        for key, value in (("user.name", "Web"), ("user.email", "web@example.com"),
                           ("gpg.format", "ssh"), ("user.signingkey", f"key::{public}"),
                           ("gpg.ssh.allowedSignersFile", str(tmp_path / "allowed_signers"))):
            run("git", "config", key, value, cwd=repo, env=env)
        (repo / "file").write_text("signed\n")
        run("git", "add", "file", cwd=repo, env=env)
        run("git", "commit", "-q", "-S", "-m", "Signed with the card", cwd=repo, env=env)
        verified = run("git", "verify-commit", "HEAD", cwd=repo, env=env)
        assert 'Good "git" signature for web@example.com' in verified.stderr
    finally:
        subprocess.run(["ssh-agent", "-k"], env=env, capture_output=True, timeout=SECONDS)
