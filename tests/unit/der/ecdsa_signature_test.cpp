#include "der/ecdsa_signature.hpp"

#include <gtest/gtest.h>

#include "support/hex.hpp"

namespace keyloft::der {
namespace {

using testing::unhex;

struct RawCase {
    std::string name;
    std::string der;
    std::size_t fieldSize;
    std::optional<std::string> raw;
};

class RawSignatures : public ::testing::TestWithParam<RawCase> {};

TEST_P(RawSignatures, AreTheNumbersPaddedToTheField) {
    const auto raw = rawEcdsaSignature(unhex(GetParam().der), GetParam().fieldSize);
    if (!GetParam().raw) {
        EXPECT_FALSE(raw);
    } else {
        ASSERT_TRUE(raw);
        EXPECT_EQ(*raw, unhex(*GetParam().raw));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Values, RawSignatures,
    ::testing::Values(RawCase{"Short", "3006020101020102", 4, "0000000100000002"},
                      RawCase{"SignByteDropped", "300A020500FFFFFFFF020101", 4, "FFFFFFFF00000001"},
                      RawCase{"TooLong", "3008020301020302017F", 2, std::nullopt},
                      RawCase{"Negative", "3006020180020101", 4, std::nullopt},
                      RawCase{"ThreeNumbers", "3009020101020101020101", 4, std::nullopt},
                      RawCase{"NotIntegers", "3006040101040101", 4, std::nullopt},
                      RawCase{"Trailing", "300602010102010200", 4, std::nullopt},
                      RawCase{"Empty", "", 4, std::nullopt}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace keyloft::der
