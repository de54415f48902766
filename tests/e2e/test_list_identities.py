"""list-identities: the table, its order, padding and fingerprints, checked independently."""
import base64
import hashlib
import subprocess

import pytest

from identities import (bastion_record, key_hash, make_certificate, make_key, place,
                        public_key_bytes, sealed_record)

HEADINGS = ["Key Type", "Public Key Hash", "Prot", "Label", "Common Name", "Email Address",
            "Valid To", "Valid"]


def parse(output):
    """Splits each line into cells using the heading line's column starts."""
    lines = output.split("\n")
    assert lines[-1] == ""
    heading = lines[0]
    starts = []
    for h in HEADINGS:
        starts.append(heading.index(h, starts[-1] + 1 if starts else 0))
    rows = []
    for line in lines[1:-1]:
        assert line.endswith(" ")
        cells = [line[a:b].rstrip(" ") for a, b in zip(starts, starts[1:] + [len(line)])]
        rows.append(cells)
    return rows


def test_empty_token_prints_the_heading_line(card):
    assert card.out("list-identities") == " ".join(HEADINGS) + " \n"


def test_rows_are_sorted_padded_and_joined_with_their_certificates(card):
    keys = [make_key("p-256"), make_key("p-384"), make_key("rsa-2048"), make_key("p-521")]
    long_label = "x" * 30
    place(card, [
        ("b", keys[0], make_certificate(keys[0], "Bob", "bob@example.com"), sealed_record(keys[0])),
        ("a", keys[1], make_certificate(keys[1], "Ann"), bastion_record(keys[1], "on")),
        ("B", keys[2], make_certificate(keys[2], "Rsa", days=-1), sealed_record(keys[2])),
        (long_label, keys[3], make_certificate(keys[3], "Émile"), sealed_record(keys[3], "on")),
    ])
    output = card.out("list-identities")
    lines = output.split("\n")
    assert len({len(line) for line in lines[:-1]}) == 1  # code points: "É" is one character
    rows = parse(output)
    assert [row[3] for row in rows] == ["B", "a", "b", long_label]
    assert rows[0][:3] == ["rsa-2048", key_hash(keys[2]).hex().upper(), "none"]
    assert rows[0][7] == "NO"
    assert rows[1][:3] == ["p-384-ne", key_hash(keys[1]).hex().upper(), "bio"]
    assert rows[2][4:6] == ["Bob", "bob@example.com"]
    assert rows[2][7] == "YES"
    assert rows[3][0] == "p-521" and rows[3][2] == "bio" and rows[3][4] == "Émile"


def ssh_blob(key):
    """The SSH public-key blob, written independently: EC keys as FIDO-authenticator keys with
    the application "ssh:", RSA keys as ssh-rsa."""
    from cryptography.hazmat.primitives import serialization
    public = key.public_key().public_bytes(serialization.Encoding.OpenSSH,
                                           serialization.PublicFormat.OpenSSH)
    if public.startswith(b"ssh-rsa"):
        return base64.b64decode(public.split()[1])
    curve = {256: b"nistp256", 384: b"nistp384", 521: b"nistp521"}[key.curve.key_size]
    parts = (b"sk-ecdsa-sha2-nistp256@openssh.com", curve, public_key_bytes(key), b"ssh:")
    return b"".join(len(part).to_bytes(4, "big") + part for part in parts)


def ssh_fingerprint(tmp_path, key, kind):
    blob = ssh_blob(key)
    expected = "SHA256:" + base64.b64encode(hashlib.sha256(blob).digest()).decode().rstrip("=")
    if kind in ("p-256", "rsa-2048"):
        # OpenSSH itself accepts FIDO blobs only on P-256; check those against ssh-keygen too.
        name = blob[4:4 + int.from_bytes(blob[:4], "big")]
        path = tmp_path / "key.pub"
        path.write_bytes(name + b" " + base64.b64encode(blob) + b" test\n")
        out = subprocess.run(["ssh-keygen", "-lf", str(path)], capture_output=True, text=True,
                             check=True).stdout
        assert out.split()[1] == expected
    return expected


@pytest.mark.parametrize("kind", ["p-256", "p-384", "p-521", "rsa-2048"])
def test_fingerprints_in_every_form(card, tmp_path, kind):
    key = make_key(kind)
    place(card, [("k", key, make_certificate(key), sealed_record(key))])
    point = public_key_bytes(key)
    sha256 = hashlib.sha256(point).digest()
    expected = {
        ("sha1", None): key_hash(key).hex().upper(),
        ("sha1", "b64"): base64.b64encode(key_hash(key)).decode(),
        ("sha256", None): base64.b64encode(sha256).decode(),
        ("sha256", "hex"): sha256.hex().upper(),
        ("ssh", None): ssh_fingerprint(tmp_path, key, kind),
    }
    for (hash_type, encoding), text in expected.items():
        args = ["list-identities", "-t", hash_type] + (["-e", encoding] if encoding else [])
        assert parse(card.out(*args))[0][1] == text, (hash_type, encoding)
    ssh_hex = parse(card.out("list-identities", "-t", "ssh", "-e", "hex"))[0][1]
    assert len(ssh_hex) == 64 and not ssh_hex.startswith("SHA256:")


@pytest.mark.parametrize("args, line", [
    (["-t"], "Error: invalid hash type\n"),
    (["-t", "md5"], "Error: invalid hash type\n"),
    (["-e", "base32"], "Error: invalid hash encoding\n"),
])
def test_bad_hash_words(card, args, line):
    assert card.out("list-identities", *args) == line


def test_failures_print_no_partial_table(card):
    key = make_key("p-256")
    place(card, [("k", key, make_certificate(key), sealed_record(key))])
    card.sql("UPDATE items SET certificate = x'3000' WHERE kind = 'certificate'")
    assert card.out("list-identities") == "Error: Failed to parse certificate from data\n"
    card.sql("UPDATE tokens SET config_data = x'00'")
    assert card.out("list-identities") == "Error: decodeDataFailed\n"


def test_key_without_record_or_certificate_still_gets_a_row(card):
    keys = [make_key("p-256"), make_key("p-256")]
    place(card, [("orphan", keys[0], make_certificate(keys[0], "Orphan"), None),
                 ("lonely", keys[1], make_certificate(keys[1], "Lonely"), sealed_record(keys[1]))])
    card.sql("DELETE FROM items WHERE kind = 'certificate' AND label = 'lonely'")
    rows = parse(card.out("list-identities"))
    assert [row[3] for row in rows] == ["lonely", "orphan"]
    assert rows[0][4:] == ["", "", "", ""]
    assert rows[1][2] == "" and rows[1][4] == "Orphan"
