#include "platform/key_service/public_key.hpp"

#include <gtest/gtest.h>

#include "base/error.hpp"
#include "support/test_certificates.hpp"

namespace keyloft::platform::key_service {
namespace {

// The key's external representation: the EC point, or the DER RSAPublicKey.
Bytes encodedPublicKey(EVP_PKEY* key) {
    unsigned char* raw = nullptr;
    const int size = i2d_PublicKey(key, &raw);
    Bytes encoded(raw, raw + std::max(size, 0));
    OPENSSL_free(raw);
    return encoded;
}

// Blob and fingerprint tests cover the keys it accepts.
TEST(PublicKey, RefusesDataThatIsNotAKeyOfTheType) {
    const Bytes point = encodedPublicKey(testing::makeEcKey().get());
    Bytes offCurve = point;
    offCurve.back() ^= 0x01;
    Bytes compressedPrefix = point;
    compressedPrefix[0] = 0x02;
    const Bytes rsa = encodedPublicKey(testing::makeRsaKey().get());
    Bytes rsaWithTrailer = rsa;
    rsaWithTrailer.push_back(0x00);
    const Bytes zeroModulus{0x30, 0x08, 0x02, 0x01, 0x00, 0x02, 0x03, 0x01, 0x00, 0x01};
    const std::pair<std::string_view, Bytes> refused[] = {
        {keyTypeEC, {}},
        {keyTypeEC, Bytes(point.begin(), point.end() - 1)},
        {keyTypeEC, offCurve},
        {keyTypeEC, compressedPrefix},
        {keyTypeEC, rsa},
        {keyTypeRSA, point},
        {keyTypeRSA, rsaWithTrailer},
        {keyTypeRSA, zeroModulus},
        {"dsa", rsa},
    };
    for (const auto& [type, data] : refused) {
        EXPECT_THROW(PublicKey::fromData(type, data), PlatformError) << type << ", " << data.size();
    }
}

}  // namespace
}  // namespace keyloft::platform::key_service
