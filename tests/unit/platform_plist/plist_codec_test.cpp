#include <gtest/gtest.h>

#include <limits>

#include "base/error.hpp"
#include "platform/plist/plist_extension.hpp"
#include "platform/plist/plist_reader.hpp"
#include "platform/plist/plist_writer.hpp"

namespace keyloft::platform::plist {
namespace {

Bytes patched(Bytes list, const std::vector<BytePatch>& patches) {
    applyPatches(list, patches);
    return list;
}

Bytes fromHex(std::string_view hex) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(
            static_cast<std::uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
    }
    return bytes;
}

TEST(PlistCodec, WritesTheBinaryFormatAndReadsBackEveryValue) {
    const std::int64_t integers[] = {0,
                                     255,
                                     256,
                                     std::int64_t{1} << 40,
                                     -1,
                                     std::numeric_limits<std::int64_t>::min(),
                                     std::numeric_limits<std::int64_t>::max()};
    const Bytes longData(300, 0xAB);
    const std::string texts[] = {"", "short", std::string(40, 'a'), "Zo\xC3\xAB \xE2\x9C\x93",
                                 "key \xF0\x9F\x94\x91"};
    PlistWriter writer(64);
    std::vector<PlistWriter::Object> elements;
    for (const auto value : integers) elements.push_back(writer.integer(value));
    elements.push_back(writer.data(longData));
    elements.push_back(writer.data({}));
    for (const auto& text : texts) elements.push_back(writer.text(text));
    const std::pair<PlistWriter::Object, PlistWriter::Object> entries[] = {
        {writer.text("list"), writer.array(elements)},
        {writer.text("empty"), writer.dictionary({})},
    };
    const Bytes encoded = writer.finish(writer.dictionary(entries));
    ASSERT_EQ(std::string(encoded.begin(), encoded.begin() + 8), "bplist00");

    const PlistReader reader(encoded);
    ASSERT_EQ(reader.kind(reader.top()), PlistKind::dictionary);
    EXPECT_EQ(reader.size(*reader.member(reader.top(), "empty")), 0U);
    EXPECT_FALSE(reader.member(reader.top(), "missing"));
    const auto read = reader.elements(*reader.member(reader.top(), "list"));
    ASSERT_EQ(read.size(), std::size(integers) + 2 + std::size(texts));
    for (std::size_t i = 0; i < std::size(integers); ++i)
        EXPECT_EQ(reader.integer(read[i]), integers[i]) << i;
    const auto data = reader.data(read[std::size(integers)]);
    EXPECT_EQ(Bytes(data.begin(), data.end()), longData);
    EXPECT_TRUE(reader.data(read[std::size(integers) + 1]).empty());
    for (std::size_t i = 0; i < std::size(texts); ++i)
        EXPECT_EQ(reader.text(read[std::size(integers) + 2 + i]), texts[i]) << i;
}

TEST(PlistCodec, ReadsWhatAnotherWriterWrote) {
    // {"flag": True, "ratio": 0.5} from Python's plistlib.
    const Bytes flags = fromHex(
        "62706c6973743030d20102030454666c616755726174696f09233fe00000000000000"
        "80d1218190000000000000101000000000000000500000000000000000000000000000022");
    const PlistReader reader(flags);
    EXPECT_EQ(reader.kind(*reader.member(reader.top(), "flag")), PlistKind::boolean);
    EXPECT_EQ(reader.kind(*reader.member(reader.top(), "ratio")), PlistKind::real);
    // {"a" * 40: b"", "k": "é" * 20 + "x"}: both lengths are separate integers.
    const Bytes lengths = fromHex(
        "62706c6973743030d2010203045f10286161616161616161616161616161616161616161616161616161616161"
        "6161616161616161616161516b406f101500e900e900e900e900e900e900e900e900e900e900e900e900e900"
        "e900e900e900e900e900e900e90078080d383a3b000000000000010100000000000000050000000000000000"
        "0000000000000068");
    const PlistReader other(lengths);
    std::string accented;
    for (int i = 0; i < 20; ++i) accented += "\xC3\xA9";
    EXPECT_EQ(other.text(*other.member(other.top(), "k")), accented + "x");
    EXPECT_TRUE(other.data(*other.member(other.top(), std::string(40, 'a'))).empty());
}

TEST(PlistCodec, RefusesWhatItCannotReadSafely) {
    PlistWriter writer(4);
    const std::pair<PlistWriter::Object, PlistWriter::Object> entry[] = {
        {writer.text("k"), writer.text("value")}};
    Bytes truncated = writer.finish(writer.dictionary(entry));
    truncated.resize(truncated.size() - 10);
    for (const Bytes& bytes :
         {Bytes{}, bytesOf("bplist00"), bytesOf("<?xml version=\"1.0\"?><plist><dict/></plist>"),
          truncated}) {
        EXPECT_THROW(PlistReader{bytes}, PlatformError) << bytes.size();
    }
    // From plistlib: {"k": "x\0y"}, {"k": "é\0"} (UTF-16), {"k": "ab"} with the "a" replaced by
    // the byte 0xA0.
    for (const auto* hex :
         {"62706c6973743030d10102516b53780079080b0d0000000000000101000000000000000300000000"
          "000000000000000000000011",
          "62706c6973743030d10102516b6200e90000080b0d00000000000001010000000000000003000000"
          "00000000000000000000000012",
          "62706c6973743030d10102516b52a062080b0d000000000000010100000000000000030000000000"
          "0000000000000000000010"}) {
        const Bytes bytes = fromHex(hex);
        const PlistReader reader(bytes);
        EXPECT_THROW(reader.text(*reader.member(reader.top(), "k")), PlatformError) << hex;
    }
}

TEST(PlistCodec, RefusesToWriteWhatItCannotRepresent) {
    PlistWriter writer(8);
    EXPECT_THROW(writer.text(std::string("a\0b", 3)), PlatformError);
    EXPECT_THROW(writer.text("\xA0"), PlatformError);
    writer.text("one");
    PlistWriter full(1);
    full.integer(1);
    EXPECT_THROW(full.integer(2), PlatformError);
}

std::vector<std::int64_t> integersIn(const Bytes& list) {
    const PlistReader reader(list);
    std::vector<std::int64_t> values;
    for (const auto element : reader.elements(*reader.member(reader.top(), "list")))
        values.push_back(reader.integer(element));
    return values;
}

TEST(PlistExtension, AddsObjectsInTheRoomLeftUntilItIsUsedUp) {
    PlistWriter writer(64);
    const PlistWriter::Object first[] = {writer.integer(0)};
    const std::pair<PlistWriter::Object, PlistWriter::Object> top[] = {
        {writer.text("list"), writer.array(first, 3)}};
    Bytes list = writer.finish(writer.dictionary(top), {.bytes = 48, .objects = 60});
    const std::size_t size = list.size();
    std::vector<std::int64_t> expected{0};
    int copies = 0;
    // Each round adds one integer: into the array's spare room while it lasts, then into a copy
    // of the array with new spare room, until the list's room is used up.
    for (std::int64_t value = 1;; ++value) {
        const PlistReader reader(list);
        PlistExtension extension(reader);
        PlistWriter& added = extension.writer();
        const PlistWriter::Object element[] = {added.integer(value)};
        const auto array = *reader.member(reader.top(), "list");
        std::optional<std::vector<BytePatch>> patches;
        if (extension.extendArray(array, element)) {
            patches = extension.finish(reader.top());
        } else {
            ++copies;
            auto all = reader.elements(array);
            all.push_back(element[0]);
            const std::pair<PlistWriter::Object, PlistWriter::Object> entry[] = {
                {added.text("list"), added.array(all, 3)}};
            patches = extension.finish(added.dictionary(entry));
        }
        if (!patches) break;
        list = patched(list, *patches);
        expected.push_back(value);
        ASSERT_EQ(integersIn(list), expected);
    }
    EXPECT_EQ(list.size(), size);
    EXPECT_GE(copies, 2);
    EXPECT_GT(expected.size(), 4U);
}

TEST(PlistExtension, FindsNoRoomInAListWrittenWithout) {
    PlistWriter writer(4);
    const PlistWriter::Object elements[] = {writer.integer(7)};
    const std::pair<PlistWriter::Object, PlistWriter::Object> top[] = {
        {writer.text("list"), writer.array(elements)}};
    const Bytes list = writer.finish(writer.dictionary(top));
    const PlistReader reader(list);
    PlistExtension extension(reader);
    EXPECT_EQ(extension.objectRoom(), 0U);
    EXPECT_FALSE(extension.extendArray(*reader.member(reader.top(), "list"), elements));
    // Nothing added: the trailer alone is written again, unchanged.
    const auto unchanged = extension.finish(reader.top());
    ASSERT_TRUE(unchanged);
    EXPECT_EQ(patched(list, *unchanged), list);
}

}  // namespace
}  // namespace keyloft::platform::plist
