#include "pubkey/hex.hpp"

#include <gtest/gtest.h>

namespace keyloft::pubkey {
namespace {

TEST(HexString, PrintsTwoUpperCaseDigitsPerByte) {
    EXPECT_EQ(toHexString(Bytes{0x00, 0xAB, 0x0F}), "00AB0F");
    EXPECT_EQ(toHexString(Bytes{}), "");
}

struct HexCase {
    const char* text;
    std::optional<Bytes> bytes;
};

class HexParsing : public ::testing::TestWithParam<HexCase> {};

TEST_P(HexParsing, ParsesWholePairsOrNothing) {
    EXPECT_EQ(fromHexString(GetParam().text), GetParam().bytes);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, HexParsing,
    ::testing::Values(HexCase{"", Bytes{}}, HexCase{"0a1B", Bytes{0x0A, 0x1B}},
                      HexCase{"fFaA09", Bytes{0xFF, 0xAA, 0x09}}, HexCase{"abc", std::nullopt},
                      HexCase{"0g", std::nullopt}, HexCase{"0a1G", std::nullopt},
                      HexCase{"0a 1b", std::nullopt}, HexCase{"+1", std::nullopt},
                      HexCase{"0x0a", std::nullopt}));

TEST(HexString, EveryByteSurvivesARoundTrip) {
    Bytes all(256);
    for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<std::uint8_t>(i);
    EXPECT_EQ(fromHexString(toHexString(all)), all);
}

}  // namespace
}  // namespace keyloft::pubkey
