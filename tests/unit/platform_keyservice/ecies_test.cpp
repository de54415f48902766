#include "platform/keyservice/ecies.hpp"

#include <gtest/gtest.h>

#include "keyloft/error.hpp"
#include "platform/keyservice/software_key.hpp"
#include "support/hex.hpp"
#include "support/python.hpp"

namespace keyloft::platform {
namespace {

// ECIES with Python's cryptography: ECDH, X963KDF(SHA-256, info = ephemeral point), AES-128-GCM
// with the 16-byte IV from the KDF.
constexpr const char* independentEcies = R"(
import sys
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.hazmat.primitives.ciphers.aead import AESGCM
from cryptography.hazmat.primitives.kdf.x963kdf import X963KDF
mode, a, b = sys.argv[1], bytes.fromhex(sys.argv[2]), bytes.fromhex(sys.argv[3])
def kdf(secret, point):
    out = X963KDF(algorithm=hashes.SHA256(), length=32, sharedinfo=point).derive(secret)
    return out[:16], out[16:]
if mode == "seal":
    recipient = ec.EllipticCurvePublicKey.from_encoded_point(ec.SECP256R1(), a)
    eph = ec.generate_private_key(ec.SECP256R1())
    point = eph.public_key().public_bytes(serialization.Encoding.X962, serialization.PublicFormat.UncompressedPoint)
    key, iv = kdf(eph.exchange(ec.ECDH(), recipient), point)
    print((point + AESGCM(key).encrypt(iv, b, None)).hex())
else:
    private = ec.derive_private_key(int.from_bytes(a[65:], "big"), ec.SECP256R1())
    point = b[:65]
    key, iv = kdf(private.exchange(ec.ECDH(), ec.EllipticCurvePublicKey.from_encoded_point(ec.SECP256R1(), point)), point)
    print(AESGCM(key).decrypt(iv, b[65:], None).hex())
)";

using testing::hex;
using testing::unhex;

TEST(Ecies, WhatWeSealTheIndependentSideOpensAndTheReverse) {
    const auto wrapping = SoftwareKey::generateEC(256);
    const Bytes point = wrapping.publicKeyAttributes().externalRepresentation;
    const auto wrappingPrivate = wrapping.externalRepresentation();
    const Bytes plaintext =
        SoftwareKey::generateEC(384).publicKeyAttributes().externalRepresentation;

    const Bytes ours = ecies::encrypt(point, plaintext);
    EXPECT_EQ(ours.size(), 65 + plaintext.size() + 16);
    EXPECT_EQ(unhex(testing::runPython(independentEcies,
                                       "open " + hex(wrappingPrivate) + " " + hex(ours))),
              plaintext);

    const Bytes theirs =
        unhex(testing::runPython(independentEcies, "seal " + hex(point) + " " + hex(plaintext)));
    const auto opened = ecies::decrypt(theirs, [&](ByteView peer) { return wrapping.agree(peer); });
    EXPECT_EQ(Bytes(opened.begin(), opened.end()), plaintext);
}

TEST(Ecies, AnyChangedByteFailsToOpen) {
    const auto wrapping = SoftwareKey::generateEC(256);
    const Bytes sealed =
        ecies::encrypt(wrapping.publicKeyAttributes().externalRepresentation, Bytes(97, 0x5A));
    const auto agree = [&](ByteView peer) { return wrapping.agree(peer); };
    for (const std::size_t position : {std::size_t{70}, sealed.size() - 1}) {
        Bytes damaged = sealed;
        damaged[position] ^= 0x01;
        EXPECT_THROW(ecies::decrypt(damaged, agree), PlatformError) << position;
    }
    EXPECT_THROW(ecies::decrypt(ByteView(sealed).first(80), agree), PlatformError);
    const auto other = SoftwareKey::generateEC(256);
    EXPECT_THROW(ecies::decrypt(sealed, [&](ByteView peer) { return other.agree(peer); }),
                 PlatformError);
}

}  // namespace
}  // namespace keyloft::platform
