#include "platform/keyservice/public_key.hpp"

#include <gtest/gtest.h>
#include <openssl/core_names.h>

#include "keyloft/error.hpp"
#include "support/test_certificates.hpp"

namespace keyloft::platform {
namespace {

Bytes encodedPoint(EVP_PKEY* key) {
    std::size_t length = 0;
    EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, nullptr, 0, &length);
    Bytes point(length);
    EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, point.data(),
                                    point.size(), &length);
    return point;
}

Bytes rsaPublicKeyDer(EVP_PKEY* key) {
    unsigned char* der = nullptr;
    const int length = i2d_PublicKey(key, &der);
    Bytes bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

class EcPublicKey : public ::testing::TestWithParam<std::pair<const char*, int>> {};

TEST_P(EcPublicKey, IsRecognisedByPointLength) {
    const auto [curve, bits] = GetParam();
    const auto generated = testing::makeEcKey(curve);
    const Bytes point = encodedPoint(generated.get());
    const auto key = PublicKey::fromData(keyTypeEC, point);
    const auto attributes = key.attributes();
    ASSERT_TRUE(attributes);
    EXPECT_EQ(attributes->keyType, keyTypeEC);
    EXPECT_EQ(attributes->sizeInBits, bits);
    EXPECT_EQ(attributes->externalRepresentation, point);
    EXPECT_EQ(key.externalRepresentation(), point);
    EXPECT_THROW(key.rsaNumbers(), PlatformError);
}

INSTANTIATE_TEST_SUITE_P(Curves, EcPublicKey,
                         ::testing::Values(std::pair{"P-256", 256}, std::pair{"P-384", 384},
                                           std::pair{"P-521", 521}));

TEST(RsaPublicKey, GivesItsNumbersWithoutLeadingZeros) {
    const auto generated = testing::makeRsaKey(3072);
    const Bytes der = rsaPublicKeyDer(generated.get());
    const auto key = PublicKey::fromData(keyTypeRSA, der);
    EXPECT_EQ(key.attributes()->sizeInBits, 3072);
    EXPECT_EQ(key.externalRepresentation(), der);
    const auto numbers = key.rsaNumbers();
    EXPECT_EQ(numbers.exponent, (Bytes{0x01, 0x00, 0x01}));
    ASSERT_EQ(numbers.modulus.size(), 384U);
    EXPECT_GE(numbers.modulus.front(), 0x80);
    // The DER INTEGER carries a sign byte before the same magnitude.
    EXPECT_TRUE(std::search(der.begin(), der.end(), numbers.modulus.begin(),
                            numbers.modulus.end()) != der.end());
}

TEST(PublicKeyData, IsRefusedWhenItIsNotAKeyOfTheType) {
    const auto p256 = testing::makeEcKey("P-256");
    const Bytes point = encodedPoint(p256.get());
    Bytes offCurve = point;
    offCurve.back() ^= 0x01;
    Bytes compressedPrefix = point;
    compressedPrefix[0] = 0x02;
    const Bytes rsaDer = rsaPublicKeyDer(testing::makeRsaKey().get());
    Bytes rsaWithTrailer = rsaDer;
    rsaWithTrailer.push_back(0x00);
    // SEQUENCE { INTEGER 0, INTEGER 65537 }
    const Bytes zeroModulus{0x30, 0x08, 0x02, 0x01, 0x00, 0x02, 0x03, 0x01, 0x00, 0x01};

    const std::pair<std::string_view, Bytes> refused[] = {
        {keyTypeEC, {}},
        {keyTypeEC, Bytes(point.begin(), point.end() - 1)},
        {keyTypeEC, offCurve},
        {keyTypeEC, compressedPrefix},
        {keyTypeEC, rsaDer},
        {keyTypeRSA, point},
        {keyTypeRSA, rsaWithTrailer},
        {keyTypeRSA, zeroModulus},
        {"dsa", rsaDer},
    };
    for (const auto& [type, data] : refused) {
        EXPECT_THROW(PublicKey::fromData(type, data), PlatformError)
            << type << ", " << data.size() << " bytes";
    }
}

}  // namespace
}  // namespace keyloft::platform
