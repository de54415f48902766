#include "platform/key_service/software_key.hpp"
#include "platform/key_service/ec_key_builder.hpp"

#include <gtest/gtest.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include "base/error.hpp"

namespace keyloft::platform::key_service {
namespace {

using crypto::digest;
using crypto::DigestAlgorithm;
using crypto::SecretBytes;

constexpr auto ecdsa = SignatureAlgorithm::ecdsaSignatureMessageX962SHA384;
constexpr auto rsaPkcs1 = SignatureAlgorithm::rsaSignatureMessagePKCS1v15SHA384;

bool verifies(EVP_PKEY* key, const EVP_MD* digest, int padding, ByteView message,
              ByteView signature) {
    openssl::MdContext context(EVP_MD_CTX_new());
    EVP_PKEY_CTX* parameters = nullptr;
    return EVP_DigestVerifyInit(context.get(), &parameters, digest, nullptr, key) == 1 &&
           (padding == 0 || EVP_PKEY_CTX_set_rsa_padding(parameters, padding) == 1) &&
           EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(),
                            message.size()) == 1;
}

class EcSoftwareKey : public ::testing::TestWithParam<int> {};

TEST_P(EcSoftwareKey, RepresentationsRebuildTheSameKey) {
    const int bits = GetParam();
    const auto field = static_cast<std::size_t>((bits + 7) / 8);
    const auto key = SoftwareKey::generateEC(bits);
    EXPECT_EQ(key.keyType(), "ec");
    EXPECT_EQ(key.sizeInBits(), bits);

    const auto data = key.externalRepresentation();
    ASSERT_EQ(data.size(), 1 + 3 * field);
    const auto publicKey = key.publicKeyAttributes();
    EXPECT_EQ(publicKey.externalRepresentation, Bytes(data.begin(), data.begin() + 1 + 2 * field));
    EXPECT_EQ(key.privateScalar(), SecretBytes(data.end() - field, data.end()));

    EXPECT_EQ(SoftwareKey::fromExternalRepresentation("ec", data).externalRepresentation(), data);
    EXPECT_EQ(SoftwareKey::fromPrivateScalar(bits, key.privateScalar()).externalRepresentation(),
              data);

    // A point that does not belong to the scalar is damage, not another key.
    auto damaged = data;
    damaged[data.size() - 1] ^= 0x01;
    EXPECT_THROW(SoftwareKey::fromExternalRepresentation("ec", damaged), PlatformError);
}

TEST_P(EcSoftwareKey, SignsAndAgrees) {
    const int bits = GetParam();
    const auto key = SoftwareKey::generateEC(bits);
    const Bytes message = bytesOf("message");
    const auto signature = key.sign(ecdsa, message);
    EXPECT_EQ(signature[0], 0x30);  // X9.62: SEQUENCE of r and s
    EXPECT_TRUE(verifies(key.handle(), EVP_sha384(), 0, message, signature));
    EXPECT_FALSE(verifies(key.handle(), EVP_sha384(), 0, bytesOf("massage"), signature));
    EXPECT_FALSE(key.supports(rsaPkcs1));
    EXPECT_THROW(key.sign(rsaPkcs1, message), PlatformError);

    const auto peer = SoftwareKey::generateEC(bits);
    const auto secret = key.agree(peer.publicKeyAttributes().externalRepresentation);
    EXPECT_EQ(secret.size(), static_cast<std::size_t>((bits + 7) / 8));
    EXPECT_EQ(secret, peer.agree(key.publicKeyAttributes().externalRepresentation));
    EXPECT_THROW(key.agree(SoftwareKey::generateEC(bits == 256 ? 384 : 256)
                               .publicKeyAttributes()
                               .externalRepresentation),
                 PlatformError);
}

INSTANTIATE_TEST_SUITE_P(Curves, EcSoftwareKey, ::testing::Values(256, 384, 521));

TEST(SoftwareKey, RsaKeysSignWithPkcs1v15) {
    const openssl::Pkey generated(EVP_RSA_gen(2048));
    unsigned char* der = nullptr;
    const int size = i2d_PrivateKey(generated.get(), &der);
    const SecretBytes data(der, der + size);
    OPENSSL_clear_free(der, static_cast<std::size_t>(size));

    const auto key = SoftwareKey::fromExternalRepresentation("rsa", data);
    EXPECT_EQ(key.keyType(), "rsa");
    EXPECT_EQ(key.sizeInBits(), 2048);
    EXPECT_EQ(key.externalRepresentation(), data);
    EXPECT_EQ(key.publicKeyAttributes().externalRepresentation[0], 0x30);  // RSAPublicKey

    const Bytes message = bytesOf("message");
    const auto signature = key.sign(rsaPkcs1, message);
    EXPECT_EQ(signature.size(), 256U);
    EXPECT_TRUE(verifies(generated.get(), EVP_sha384(), RSA_PKCS1_PADDING, message, signature));
    EXPECT_THROW(key.sign(ecdsa, message), PlatformError);
    EXPECT_THROW(key.privateScalar(), PlatformError);
    EXPECT_THROW(
        key.agree(SoftwareKey::generateEC(256).publicKeyAttributes().externalRepresentation),
        PlatformError);
}

TEST(SoftwareKey, MalformedKeyDataIsRefused) {
    const auto p256 = SoftwareKey::generateEC(256).externalRepresentation();
    auto uncompressedPrefix = p256;
    uncompressedPrefix[0] = 0x02;
    const Bytes order256{0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF,
                         0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xBC, 0xE6, 0xFA, 0xAD, 0xA7, 0x17,
                         0x9E, 0x84, 0xF3, 0xB9, 0xCA, 0xC2, 0xFC, 0x63, 0x25, 0x51};
    const std::vector<std::pair<std::string, std::function<void()>>> cases{
        {"empty", [] { SoftwareKey::fromExternalRepresentation("ec", Bytes{}); }},
        {"prefix", [&] { SoftwareKey::fromExternalRepresentation("ec", uncompressedPrefix); }},
        {"truncated",
         [&] { SoftwareKey::fromExternalRepresentation("ec", ByteView(p256).first(96)); }},
        {"rsa given ec data", [&] { SoftwareKey::fromExternalRepresentation("rsa", p256); }},
        {"key type", [] { SoftwareKey::fromExternalRepresentation("dsa", Bytes{}); }},
        {"zero scalar", [] { SoftwareKey::fromPrivateScalar(256, Bytes(32, 0)); }},
        {"scalar = order", [&] { SoftwareKey::fromPrivateScalar(256, order256); }},
        {"scalar length", [] { SoftwareKey::fromPrivateScalar(256, Bytes(31, 1)); }},
        {"point off the curve", [] { ecPublicKeyFromPoint(256, Bytes(65, 4)); }},
    };
    for (const auto& [name, make] : cases) EXPECT_THROW(make(), PlatformError) << name;
}

TEST(SoftwareKey, AdoptsOnlyTheSupportedCurvesAndRsa) {
    EXPECT_EQ(SoftwareKey::adopt(openssl::Pkey(EVP_EC_gen("P-384"))).keyType(), "ec");
    EXPECT_EQ(SoftwareKey::adopt(openssl::Pkey(EVP_RSA_gen(1024))).keyType(), "rsa");
    // Same sizes as P-256 and P-384, other curves.
    for (const char* curve : {"secp256k1", "brainpoolP256r1", "brainpoolP384r1"})
        EXPECT_THROW(SoftwareKey::adopt(openssl::Pkey(EVP_EC_gen(curve))), PlatformError) << curve;
    EXPECT_THROW(SoftwareKey::adopt(openssl::Pkey(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"))),
                 PlatformError);
    EXPECT_THROW(SoftwareKey::adopt(nullptr), PlatformError);
}

}  // namespace
}  // namespace keyloft::platform::key_service
