#include "platform/plist/binary_plist.hpp"

#include <gtest/gtest.h>

#include <limits>

#include "base/error.hpp"

namespace keyloft::platform::plist {
namespace {

Bytes fromHex(std::string_view hex) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(
            static_cast<std::uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
    }
    return bytes;
}

TEST(BinaryPlist, WritesTheBinaryFormatAndReadsBackTheSameTree) {
    const PlistValue tree{PlistDictionary{
        {"z",
         {PlistArray{{std::int64_t{0}},
                     {std::int64_t{1} << 40},
                     {std::int64_t{-1}},
                     {std::numeric_limits<std::int64_t>::min()},
                     {std::numeric_limits<std::int64_t>::max()}}}},
        {"a", {PlistArray{{Bytes{0x00, 0xFF}}, {Bytes{}}, {PlistDictionary{}}, {PlistArray{}}}}},
        {"text", {std::string("Zoë ✓")}},
    }};
    const Bytes encoded = toBinary(tree);
    EXPECT_EQ(std::string(encoded.begin(), encoded.begin() + 8), "bplist00");
    EXPECT_EQ(fromBinary(encoded), tree);
}

TEST(BinaryPlist, ReportsOtherTypesAsUnsupported) {
    // {"flag": True, "ratio": 0.5} from Python's plistlib.
    const auto decoded = std::get<PlistDictionary>(
        fromBinary(
            fromHex("62706c6973743030d20102030454666c616755726174696f09233fe00000000000000"
                    "80d1218190000000000000101000000000000000500000000000000000000000000000022"))
            .value);
    EXPECT_EQ(*findValue(decoded, "flag"), PlistValue{PlistUnsupported{"boolean"}});
    EXPECT_EQ(*findValue(decoded, "ratio"), PlistValue{PlistUnsupported{"real"}});
    EXPECT_EQ(findValue(decoded, "missing"), nullptr);
}

TEST(BinaryPlist, RefusesWhatItCannotReadSafely) {
    Bytes truncated = toBinary({PlistDictionary{{"k", {std::string("value")}}}});
    truncated.resize(truncated.size() - 10);
    const Bytes refused[] = {
        {},
        bytesOf("bplist00"),
        bytesOf("<?xml version=\"1.0\"?><plist><dict/></plist>"),
        truncated,
        // From plistlib: {"a\0b": 1}, {"k": "x\0y"}, {"k": "é\0"} (UTF-16), then {"k": "ab"} with
        // the "a" replaced by the byte 0xA0.
        fromHex("62706c6973743030d10102536100621001080b0f0000000000000101000000000000000300000000"
                "000000000000000000000011"),
        fromHex("62706c6973743030d10102516b53780079080b0d0000000000000101000000000000000300000000"
                "000000000000000000000011"),
        fromHex("62706c6973743030d10102516b6200e90000080b0d00000000000001010000000000000003000000"
                "00000000000000000000000012"),
        fromHex("62706c6973743030d10102516b52a062080b0d000000000000010100000000000000030000000000"
                "0000000000000000000010"),
    };
    for (const Bytes& bytes : refused)
        EXPECT_THROW(fromBinary(bytes), PlatformError) << bytes.size();
}

TEST(BinaryPlist, ReadsStringsWhoseLengthFollowsTheMarker) {
    // {"a" * 40: b"", "k": "é" * 20 + "x"} from plistlib: both lengths are separate integers.
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
}  // namespace keyloft::platform::plist
