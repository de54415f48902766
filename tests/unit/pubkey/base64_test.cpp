#include "pubkey/base64.hpp"

#include <gtest/gtest.h>

namespace keyloft::pubkey {
namespace {

TEST(Base64, EncodesTheStandardVectors) {
    const std::pair<const char*, const char*> vectors[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
    };
    for (const auto& [plain, encoded] : vectors) {
        EXPECT_EQ(base64Encode(bytesOf(plain)), encoded);
        EXPECT_EQ(base64Decode(encoded), bytesOf(plain));
    }
    EXPECT_EQ(base64Encode(Bytes{0xFB, 0xFF}), "+/8=");
}

TEST(Base64, RejectsAnythingButExactEncodings) {
    for (const char* text :
         {"Zg", "Zg=", "Z===", "Zm9v\n", "Zm 9", "Zm9-", "=Zm9", "Zg==Zg==", "Zh=="}) {
        EXPECT_EQ(base64Decode(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace keyloft::pubkey
