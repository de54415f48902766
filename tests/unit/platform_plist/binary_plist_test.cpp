#include "platform/plist/binary_plist.hpp"

#include <gtest/gtest.h>

#include <limits>

#include "keyloft/error.hpp"

namespace keyloft::platform {
namespace {

PlistValue sampleTree() {
    return {PlistDictionary{
        {"version", {std::int64_t{1}}},
        {"keys",
         {PlistArray{
             {Bytes{0x00, 0xFF, 0x10}},
             {PlistDictionary{{"text", {std::string("on")}}, {"empty", {Bytes{}}}}},
             {PlistArray{}},
             {PlistDictionary{}},
         }}},
        {"utf8", {std::string("Zoë ✓")}},
    }};
}

TEST(BinaryPlist, WritesTheBinaryFormatAndReadsBackTheSameTree) {
    const Bytes encoded = toBinary(sampleTree());
    ASSERT_GE(encoded.size(), 8U);
    EXPECT_EQ(std::string(encoded.begin(), encoded.begin() + 8), "bplist00");
    EXPECT_EQ(fromBinary(encoded), sampleTree());
}

TEST(BinaryPlist, KeepsDictionaryEntriesInWrittenOrder) {
    const PlistValue tree{PlistDictionary{{"z", {std::int64_t{1}}}, {"a", {std::int64_t{2}}}}};
    const auto decoded = std::get<PlistDictionary>(fromBinary(toBinary(tree)).value);
    ASSERT_EQ(decoded.size(), 2U);
    EXPECT_EQ(decoded[0].first, "z");
    EXPECT_EQ(decoded[1].first, "a");
}

class IntegerRoundTrip : public ::testing::TestWithParam<std::int64_t> {};

TEST_P(IntegerRoundTrip, KeepsTheSignedValue) {
    const PlistValue tree{GetParam()};
    EXPECT_EQ(fromBinary(toBinary(tree)), tree);
}

INSTANTIATE_TEST_SUITE_P(Widths, IntegerRoundTrip,
                         ::testing::Values(0, 1, 255, 256, 65536, std::int64_t{1} << 40, -1,
                                           std::numeric_limits<std::int64_t>::min(),
                                           std::numeric_limits<std::int64_t>::max()));

TEST(BinaryPlist, ReportsOtherTypesAsUnsupported) {
    // {"flag": true, "ratio": 0.5} written by a standard binary writer.
    const Bytes encoded{0x62, 0x70, 0x6C, 0x69, 0x73, 0x74, 0x30, 0x30, 0xD2, 0x01, 0x02, 0x03,
                        0x04, 0x54, 0x66, 0x6C, 0x61, 0x67, 0x55, 0x72, 0x61, 0x74, 0x69, 0x6F,
                        0x09, 0x23, 0x3F, 0xE0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x08, 0x0D,
                        0x12, 0x18, 0x19, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x01, 0x00,
                        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00,
                        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x22};
    const auto decoded = std::get<PlistDictionary>(fromBinary(encoded).value);
    ASSERT_NE(findValue(decoded, "flag"), nullptr);
    EXPECT_EQ(*findValue(decoded, "flag"), PlistValue{PlistUnsupported{"boolean"}});
    EXPECT_EQ(*findValue(decoded, "ratio"), PlistValue{PlistUnsupported{"real"}});
    EXPECT_EQ(findValue(decoded, "missing"), nullptr);
}

TEST(BinaryPlist, RejectsBytesThatAreNotABinaryPropertyList) {
    const std::string xml = "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict></dict></plist>";
    Bytes truncated = toBinary(sampleTree());
    truncated.resize(truncated.size() - 10);
    for (const Bytes& bytes :
         {Bytes{}, bytesOf("bplist00"), bytesOf("not a plist at all"), bytesOf(xml), truncated}) {
        EXPECT_THROW(fromBinary(bytes), PlatformError) << bytes.size() << " bytes";
    }
}

TEST(BinaryPlist, RefusesToWriteWhatItCannotRepresent) {
    EXPECT_THROW(toBinary({PlistUnsupported{"date"}}), PlatformError);
    EXPECT_THROW(toBinary({std::string("a\0b", 3)}), PlatformError);
}

}  // namespace
}  // namespace keyloft::platform
