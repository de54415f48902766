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

Bytes fromHex(std::string_view hex) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(
            static_cast<std::uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
    }
    return bytes;
}

// Written by a standard binary writer: {"a\0b": 1}, {"k": "x\0y"} and {"k": "é\0"} (UTF-16).
TEST(BinaryPlist, RejectsStringsWithANulCharacter) {
    for (const char* hex :
         {"62706c6973743030d10102536100621001080b0f000000000000010100000000000000030000000000000000"
          "0000000000000011",
          "62706c6973743030d10102516b53780079080b0d000000000000010100000000000000030000000000000000"
          "0000000000000011",
          "62706c6973743030d10102516b6200e90000080b0d0000000000000101000000000000000300000000000000"
          "000000000000000012"}) {
        try {
            fromBinary(fromHex(hex));
            ADD_FAILURE() << "accepted " << hex;
        } catch (const PlatformError& error) {
            EXPECT_STREQ(error.what(), "property-list string holds a NUL character");
        }
    }
}

TEST(BinaryPlist, RejectsAsciiStringsThatAreNotText) {
    // {"k": "ab"} with the "a" replaced by the byte 0xA0.
    EXPECT_THROW(
        fromBinary(fromHex("62706c6973743030d10102516b52a062080b0d00000000000001010000000000"
                           "00000300000000000000000000000000000010")),
        PlatformError);
}

TEST(BinaryPlist, ReadsStringsWhoseLengthFollowsTheMarker) {
    // {"a" * 40: b"", "k": "é" * 20 + "x"}, both lengths written as separate integers.
    const Bytes encoded = fromHex(
        "62706c6973743030d2010203045f10286161616161616161616161616161616161616161616161616161616161"
        "61"
        "61616161616161616161516b406f101500e900e900e900e900e900e900e900e900e900e900e900e900e900e900"
        "e9"
        "00e900e900e900e900e90078080d383a3b00000000000001010000000000000005000000000000000000000000"
        "00000068");
    std::string accented;
    for (int i = 0; i < 20; ++i) accented += "é";
    EXPECT_EQ(
        fromBinary(encoded),
        (PlistValue{PlistDictionary{{std::string(40, 'a'), {Bytes{}}}, {"k", {accented + "x"}}}}));
}

TEST(BinaryPlist, RefusesToWriteWhatItCannotRepresent) {
    EXPECT_THROW(toBinary({PlistUnsupported{"date"}}), PlatformError);
    EXPECT_THROW(toBinary({std::string("a\0b", 3)}), PlatformError);
    EXPECT_THROW(toBinary({std::string("\xA0")}), PlatformError);
    EXPECT_THROW(toBinary({PlistDictionary{{std::string("k\0", 2), {std::int64_t{1}}}}}),
                 PlatformError);
}

}  // namespace
}  // namespace keyloft::platform
