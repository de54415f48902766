"""Signatures checked by the module itself (pkcs11-tool --verify) for every signing mechanism,
and digests it computes, compared with openssl's."""
import hashlib

import pytest

from conftest import PKCS11_MODULE
from test_pkcs11 import MESSAGE, tool, wallet  # noqa: F401 (the fixture)


@pytest.mark.parametrize("label, mechanism, options, signs_digest", [
    ("Wrapped", "ECDSA", [], True),
    ("Bound", "ECDSA-SHA384", [], False),
    ("Rsa", "SHA256-RSA-PKCS", [], False),
    ("Rsa", "SHA512-RSA-PKCS-PSS", [], False),
    ("Rsa", "RSA-PKCS-PSS", ["--hash-algorithm", "SHA256"], True),
    ("Rsa", "RSA-PKCS", [], True),
])
def test_pkcs11_tool_verifies_with_the_module(wallet, tmp_path, label, mechanism, options,
                                              signs_digest):
    identity = wallet.identities[label]
    (tmp_path / "in").write_bytes(hashlib.sha256(MESSAGE).digest() if signs_digest else MESSAGE)
    tool(wallet.card, "--sign", "-m", mechanism, "--id", identity.id, *options,
         "-i", str(tmp_path / "in"), "-o", str(tmp_path / "sig"))
    result = tool(wallet.card, "--verify", "-m", mechanism, "--id", identity.id, *options,
                  "-i", str(tmp_path / "in"), "--signature-file", str(tmp_path / "sig"))
    assert "Signature is valid" in result.stdout, result.stdout
    signature = bytearray((tmp_path / "sig").read_bytes())
    signature[-1] ^= 1
    (tmp_path / "sig").write_bytes(bytes(signature))
    result = wallet.card.client("pkcs11-tool", "--module", PKCS11_MODULE,
                                "--verify", "-m", mechanism, "--id", identity.id, *options,
                                "-i", str(tmp_path / "in"), "--signature-file",
                                str(tmp_path / "sig"), check=False)
    assert "Invalid signature" in result.stdout + result.stderr, result


@pytest.mark.parametrize("mechanism, name", [("SHA-1", "sha1"), ("SHA256", "sha256"),
                                             ("SHA384", "sha384"), ("SHA512", "sha512")])
def test_pkcs11_tool_hashes_with_the_module(wallet, tmp_path, mechanism, name):
    (tmp_path / "in").write_bytes(MESSAGE * 1000)
    tool(wallet.card, "--hash", "-m", mechanism, "-i", str(tmp_path / "in"),
         "-o", str(tmp_path / "out"))
    assert (tmp_path / "out").read_bytes() == hashlib.new(name, MESSAGE * 1000).digest()
