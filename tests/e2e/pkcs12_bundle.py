"""PKCS#12 files holding many identities, written here because cryptography's writer takes one
key only. Each key is a shrouded key bag (cryptography's encrypted PKCS#8) and each certificate a
plain certificate bag, paired by localKeyID; the file carries a SHA-256 MAC."""
import hashlib
import hmac
import os

from cryptography.hazmat.primitives import serialization

from identities import der, key_hash

OID_DATA = "1.2.840.113549.1.7.1"
OID_SHROUDED_KEY_BAG = "1.2.840.113549.1.12.10.1.2"
OID_CERT_BAG = "1.2.840.113549.1.12.10.1.3"
OID_X509_CERTIFICATE = "1.2.840.113549.1.9.22.1"
OID_FRIENDLY_NAME = "1.2.840.113549.1.9.20"
OID_LOCAL_KEY_ID = "1.2.840.113549.1.9.21"
OID_SHA256 = "2.16.840.1.101.3.4.2.1"
MAC_ITERATIONS = 2048


def tlv(tag, content):
    size = len(content)
    if size < 0x80:
        return bytes([tag, size]) + content
    length = size.to_bytes((size.bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(length)]) + length + content


def sequence(*parts):
    return tlv(0x30, b"".join(parts))


def set_of(*parts):
    return tlv(0x31, b"".join(sorted(parts)))


def octets(data):
    return tlv(0x04, data)


def explicit0(content):
    return tlv(0xA0, content)


def integer(value):
    return tlv(0x02, value.to_bytes(value.bit_length() // 8 + 1, "big"))


def oid(dotted):
    first, second, *rest = (int(part) for part in dotted.split("."))
    body = bytearray([40 * first + second])
    for arc in rest:
        chunk = [arc & 0x7F]
        while arc > 0x7F:
            arc >>= 7
            chunk.append(0x80 | (arc & 0x7F))
        body += bytes(reversed(chunk))
    return tlv(0x06, bytes(body))


def bag(bag_oid, value, friendly_name, local_key_id):
    attributes = [sequence(oid(OID_LOCAL_KEY_ID), set_of(octets(local_key_id)))]
    if friendly_name is not None:
        attributes.append(sequence(oid(OID_FRIENDLY_NAME),
                                   set_of(tlv(0x1E, friendly_name.encode("utf-16-be")))))
    return sequence(oid(bag_oid), explicit0(value), set_of(*attributes))


def mac_key(password, salt, iterations):
    """The PKCS#12 key derivation (ID 3, MAC key) with SHA-256; one block is the whole key."""
    v = 64
    secret = (password + "\0").encode("utf-16-be") if password is not None else b""

    def stretched(data):
        if not data:
            return b""
        size = v * -(-len(data) // v)
        return (data * (size // len(data) + 1))[:size]

    block = bytes([3]) * v + stretched(salt) + stretched(secret)
    for _ in range(iterations):
        block = hashlib.sha256(block).digest()
    return block


def pkcs12_bundle(identities, password, friendly_names=None):
    """The DER of a PKCS#12 file with each (key, certificate) pair of identities; friendly_names,
    when given, holds one friendlyName (or None) per identity for both of its bags."""
    names = friendly_names or [None] * len(identities)
    key_bags, certificate_bags = [], []
    for (key, certificate), name in zip(identities, names):
        local_id = key_hash(key)
        shrouded = key.private_bytes(serialization.Encoding.DER, serialization.PrivateFormat.PKCS8,
                                     serialization.BestAvailableEncryption(password.encode()))
        key_bags.append(bag(OID_SHROUDED_KEY_BAG, shrouded, name, local_id))
        certificate_bags.append(bag(OID_CERT_BAG, sequence(
            oid(OID_X509_CERTIFICATE), explicit0(octets(der(certificate)))), name, local_id))
    safes = [sequence(oid(OID_DATA), explicit0(octets(sequence(*bags))))
             for bags in (certificate_bags, key_bags)]
    authenticated_safe = sequence(*safes)
    salt = os.urandom(16)
    digest = hmac.new(mac_key(password, salt, MAC_ITERATIONS), authenticated_safe,
                      hashlib.sha256).digest()
    mac_data = sequence(sequence(sequence(oid(OID_SHA256), b"\x05\x00"), octets(digest)),
                        octets(salt), integer(MAC_ITERATIONS))
    return sequence(integer(3), sequence(oid(OID_DATA), explicit0(octets(authenticated_safe))),
                    mac_data)
