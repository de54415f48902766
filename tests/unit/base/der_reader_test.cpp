#include "base/der_reader.hpp"

#include <gtest/gtest.h>

namespace keyloft::der_reader {
namespace {

struct ElementRow {
    Bytes bytes;
    std::optional<std::size_t> contentSize;  // nothing when no element starts there
    std::size_t headerSize = 2;
};

TEST(ReadElement, Lengths) {
    Bytes long300{0x04, 0x82, 0x01, 0x2C};
    long300.resize(4 + 300);
    const std::vector<ElementRow> rows{
        {{0x04, 0x00}, 0},
        {{0x04, 0x02, 0xAA, 0xBB, 0xCC}, 2},  // bytes after the element are not its own
        {{0x04, 0x81, 0x01, 0xAA}, 1, 3},     // non-minimal long form is read
        {{0x04, 0x83, 0x00, 0x00, 0x01, 0xAA}, 1, 5},
        {long300, 300, 4},
        {{0x04, 0x84, 0x00, 0x00, 0x00, 0x00}, 0, 6},
        {{0x04}, std::nullopt},
        {{0x04, 0x02, 0xAA}, std::nullopt},                 // truncated content
        {{0x04, 0x82, 0x01}, std::nullopt},                 // truncated length
        {{0x30, 0x80, 0x00, 0x00}, std::nullopt},           // indefinite
        {{0x04, 0x85, 0, 0, 0, 0, 1, 0xAA}, std::nullopt},  // five length bytes
        {{0x04, 0x84, 0xFF, 0xFF, 0xFF, 0xFF}, std::nullopt},
        {{0x1F, 0x01, 0x00}, std::nullopt},  // high tag number form
        {{0xBF, 0x81, 0x00}, std::nullopt},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const auto element = readElement(rows[i].bytes);
        ASSERT_EQ(element.has_value(), rows[i].contentSize.has_value()) << i;
        if (!element) continue;
        EXPECT_EQ(element->tag, rows[i].bytes[0]) << i;
        EXPECT_EQ(element->content.size(), *rows[i].contentSize) << i;
        EXPECT_EQ(element->content.data(), rows[i].bytes.data() + rows[i].headerSize) << i;
        EXPECT_EQ(element->encoding.size(), rows[i].headerSize + *rows[i].contentSize) << i;
    }
}

TEST(ReadElement, SingleElementMustFillTheBytes) {
    EXPECT_TRUE(readSingleElement(Bytes{0x05, 0x00}));
    EXPECT_FALSE(readSingleElement(Bytes{0x05, 0x00, 0x00}));
    EXPECT_FALSE(readSingleElement(Bytes{}));
}

TEST(Cursor, WalksChildrenAndStaysOnAMismatch) {
    const Bytes sequence{0x30, 0x07, 0x02, 0x01, 0x05, 0x04, 0x02, 0xAA, 0xBB};
    const auto parent = readSingleElement(sequence);
    ASSERT_TRUE(parent);
    Cursor cursor(*parent);
    EXPECT_FALSE(cursor.next(0x04));
    const auto integer = cursor.next(0x02);
    ASSERT_TRUE(integer);
    EXPECT_EQ(integer->content[0], 0x05);
    EXPECT_TRUE(cursor.next(0x04));
    EXPECT_TRUE(cursor.atEnd());
    EXPECT_FALSE(cursor.next());

    const Bytes truncated{0x02, 0x01, 0x05, 0x04, 0x05, 0xAA};
    Cursor broken(truncated);
    EXPECT_TRUE(broken.next());
    EXPECT_FALSE(broken.next());
    EXPECT_FALSE(broken.atEnd());
}

TEST(ContentRules, IntegersObjectIdentifiersBitStrings) {
    const std::vector<std::pair<Bytes, bool>> integers{
        {{}, false},           {{0x00}, true},       {{0xFF}, true},        {{0x00, 0x80}, true},
        {{0x00, 0x7F}, false}, {{0xFF, 0x7F}, true}, {{0xFF, 0x80}, false}, {{0xFF, 0x00}, true},
    };
    for (const auto& [content, valid] : integers)
        EXPECT_EQ(isMinimalInteger(content), valid) << content.size();
    const std::vector<std::pair<Bytes, bool>> identifiers{
        {{}, false},
        {{0x2A}, true},
        {{0x2A, 0x86, 0x48}, true},
        {{0x2A, 0x86}, false},
        {{0x80, 0x01}, false},
        {{0x2A, 0x80, 0x01}, false},
        {{0x2A, 0x81, 0x80, 0x01}, true},
    };
    for (const auto& [content, valid] : identifiers)
        EXPECT_EQ(isObjectIdentifier(content), valid) << content.size();
    EXPECT_FALSE(isBitString(Bytes{}));
    EXPECT_TRUE(isBitString(Bytes{0x07, 0x80}));
    EXPECT_FALSE(isBitString(Bytes{0x08, 0x00}));
}

}  // namespace
}  // namespace keyloft::der_reader
