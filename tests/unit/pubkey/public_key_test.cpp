#include "platform/keyservice/public_key.hpp"

#include <gtest/gtest.h>

#include "key_items.hpp"
#include "keyloft/error.hpp"

namespace keyloft::platform {
namespace {

// Blob and fingerprint tests cover the keys it accepts.
TEST(PublicKey, RefusesDataThatIsNotAKeyOfTheType) {
    const Bytes point = *testing::keyItemFor(testing::makeEcKey().get()).publicKeyData;
    Bytes offCurve = point;
    offCurve.back() ^= 0x01;
    Bytes compressedPrefix = point;
    compressedPrefix[0] = 0x02;
    const Bytes rsa = *testing::keyItemFor(testing::makeRsaKey().get()).publicKeyData;
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
}  // namespace keyloft::platform
