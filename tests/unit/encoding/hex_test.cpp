#include "encoding/hex.hpp"

#include <gtest/gtest.h>

namespace keyloft::encoding {
namespace {

TEST(HexString, PrintsTwoUpperCaseDigitsPerByte) {
    EXPECT_EQ(toHexString(Bytes{0x00, 0xAB, 0x0F}), "00AB0F");
    Bytes all(256);
    for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<std::uint8_t>(i);
    EXPECT_EQ(fromHexString(toHexString(all)), all);
}

TEST(HexString, ParsesWholePairsOfEitherCaseOrNothing) {
    EXPECT_EQ(fromHexString(""), Bytes{});
    EXPECT_EQ(fromHexString("0a1B"), (Bytes{0x0A, 0x1B}));
    for (const char* text : {"abc", "0g", "0a1G", "0a 1b", "+1", "0x0a"}) {
        EXPECT_EQ(fromHexString(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace keyloft::encoding
