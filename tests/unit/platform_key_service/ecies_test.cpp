#include "platform/key_service/ecies.hpp"

#include <gtest/gtest.h>

#include "base/error.hpp"
#include "platform/key_service/software_key.hpp"
#include "support/hex.hpp"
#include "support/python.hpp"

namespace keyloft::platform::key_service {
namespace {

using crypto::digest;
using crypto::DigestAlgorithm;
using crypto::SecretBytes;

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

// Wrapped private keys of P-256, P-384 and P-521, and the empty edge.
TEST(Ecies, WhatWeSealTheIndependentSideOpensAndTheReverse) {
    const auto wrapping = SoftwareKey::generateEC(256);
    const Bytes point = wrapping.publicKeyAttributes().externalRepresentation;
    const auto wrappingPrivate = wrapping.externalRepresentation();
    const auto agree = [&](ByteView peer) { return wrapping.agree(peer); };

    for (const auto& [bits, sealedSize] :
         {std::pair{256, 178U}, std::pair{384, 226U}, std::pair{521, 280U}, std::pair{0, 81U}}) {
        const auto secret =
            bits != 0 ? SoftwareKey::generateEC(bits).externalRepresentation() : SecretBytes{};
        const Bytes plaintext(secret.begin(), secret.end());

        const Bytes ours = ecies::encrypt(point, plaintext);
        EXPECT_EQ(ours.size(), sealedSize) << bits;
        EXPECT_EQ(unhex(testing::runPython(independentEcies,
                                           "open " + hex(wrappingPrivate) + " " + hex(ours))),
                  plaintext)
            << bits;

        const Bytes theirs = unhex(testing::runPython(
            independentEcies,
            "seal " + hex(point) + " " + (plaintext.empty() ? "''" : hex(plaintext))));
        EXPECT_EQ(theirs.size(), sealedSize) << bits;
        EXPECT_EQ(ecies::decrypt(theirs, agree), secret) << bits;
    }
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
}  // namespace keyloft::platform::key_service
