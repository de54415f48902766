"""The module through an application's whole life: torn down from exit handlers in any order, and
an identity's certificate replaced by the issued one, seen by pkcs11-tool and NSS."""
import datetime
import pathlib
import re
import shutil
import subprocess

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec

from conftest import PKCS11_MODULE
from test_pkcs11 import identities_of, listed_objects

EXIT_CLIENT = pathlib.Path(__file__).with_name("pkcs11_exit_client.c")


@pytest.fixture(scope="module")
def exit_client(tmp_path_factory):
    binary = tmp_path_factory.mktemp("client") / "pkcs11_exit_client"
    flags = subprocess.run(["pkg-config", "--cflags", "p11-kit-1"], capture_output=True,
                           text=True, check=True).stdout.split()
    subprocess.run(["cc", "-Wall", "-Werror", *flags, "-o", binary, EXIT_CLIENT, "-ldl",
                    "-lpthread"], check=True)
    return binary


# What the application's exit handler (registered before C_Initialize) and its other teardown
# calls answer: the module stays initialized until the application finalizes it.
TEARDOWNS = {
    "initialize-only": ["C_Finalize=0x0"],
    "close-finalize": ["C_CloseSession=0x0", "C_Finalize=0x0"],
    "finalize-close": ["C_Finalize=0x0", "C_CloseSession=0x190"],  # not initialized
    "close-all": ["C_CloseAllSessions=0x0", "C_Finalize=0x0"],
    "finalize-dlclose": ["C_Finalize=0x0", "dlclose=0x0"],
    "dlclose": ["dlclose=0x0"],
    "main-finalize": ["main C_Finalize=0x0", "C_Finalize=0x190"],
    "main-dlclose": ["main dlclose=0x0"],
    "thread": ["thread C_CloseSession=0x0", "C_Finalize=0x0"],
}


@pytest.mark.parametrize("scenario", TEARDOWNS)
def test_teardown_from_exit_handlers(card, exit_client, scenario):
    card.run("create-identity", "-l", "Exit", "-k", "p-256", "-CN", "Exit")
    result = card.client(str(exit_client), PKCS11_MODULE, scenario, check=False)
    assert (result.returncode, result.stdout.splitlines()) == (0, TEARDOWNS[scenario]), result
    assert "Sanitizer" not in result.stderr and "free()" not in result.stderr, result.stderr


def issue(csr_path):
    """Signs a request read from PEM with a throwaway CA, as a CA would; the certificate's DER."""
    request = x509.load_pem_x509_csr(csr_path.read_bytes())
    ca_key = ec.generate_private_key(ec.SECP256R1())
    now = datetime.datetime.now(datetime.timezone.utc)
    certificate = (x509.CertificateBuilder().subject_name(request.subject)
                   .issuer_name(x509.Name([x509.NameAttribute(x509.NameOID.COMMON_NAME, "CA")]))
                   .public_key(request.public_key()).serial_number(x509.random_serial_number())
                   .not_valid_before(now).not_valid_after(now + datetime.timedelta(days=30))
                   .sign(ca_key, hashes.SHA256()))
    return certificate


@pytest.fixture
def issued_identity(card, tmp_path):
    """An identity "Mail" whose self-signed certificate the issued one replaced."""
    card.run("create-identity", "-l", "Mail", "-k", "p-256", "-CN", "Mail")
    identity = identities_of(card)["Mail"]
    card.run("create-csr", "-h", identity.id, "-f", str(tmp_path / "mail.csr"), "-CN", "Mail")
    certificate = issue(tmp_path / "mail.csr")
    (tmp_path / "mail.pem").write_bytes(certificate.public_bytes(serialization.Encoding.PEM))
    card.run("import-certificate", "-f", str(tmp_path / "mail.pem"))
    return identity.id, certificate


# "unlabelled": a card whose certificate was replaced before the label was carried over.
@pytest.mark.parametrize("certificate_label", ["carried over", "unlabelled"])
def test_issued_certificate_shows_the_identity_label(card, issued_identity, certificate_label):
    hash_, certificate = issued_identity
    if certificate_label == "unlabelled":
        card.sql("UPDATE items SET label=NULL WHERE kind='certificate'")
    output = card.client("pkcs11-tool", "--module", PKCS11_MODULE, "-O").stdout
    labels = {o["heading"].split(";")[0]: o["label"] for o in listed_objects(output)
              if o.get("ID") == hash_}
    assert labels == {"Certificate Object": "Mail", "Public Key Object": "Mail",
                      "Private Key Object": "Mail"}
    card.client("pkcs11-tool", "--module", PKCS11_MODULE, "-r", "--type", "cert", "--label",
                "Mail", "-o", str(card.home / "read.der"))
    assert (card.home / "read.der").read_bytes() == certificate.public_bytes(
        serialization.Encoding.DER)


def nss_database(card, folder):
    """An NSS database in the folder with the module loaded as "keyloft"."""
    folder.mkdir()
    card.client("certutil", "-N", "-d", f"sql:{folder}", "--empty-password")
    card.client("modutil", "-dbdir", f"sql:{folder}", "-add", "keyloft", "-libfile",
                PKCS11_MODULE, "-force")
    return f"sql:{folder}"


@pytest.mark.skipif(shutil.which("certutil") is None, reason="NSS tools are not installed")
def test_nss_names_the_issued_certificate_by_its_label(card, issued_identity, tmp_path):
    database = nss_database(card, tmp_path / "nss")
    listing = card.client("certutil", "-L", "-d", database, "-h", "all").stdout
    assert re.search(r"^keyloft:Mail\s+u,u,u$", listing, re.M), listing
    assert "(NULL)" not in listing
