#include "der/reader.hpp"

#include <gtest/gtest.h>

#include "der/record.hpp"

namespace keyloft::der {
namespace {

Bytes withContent(Bytes header, std::size_t size) {
    header.resize(header.size() + size, 0xAB);
    return header;
}

struct ElementRow {
    const char* name;
    Bytes bytes;
    std::optional<std::size_t> contentSize;  // nothing when no element may be read there
    std::size_t headerSize = 2;
};

TEST(ReadElement, TakesDefiniteShortestLengthsAndOneByteTagsOnly) {
    const std::vector<ElementRow> rows{
        {"empty content", {0x04, 0x00}, 0},
        {"bytes after the element are not its own", {0x04, 0x02, 0xAA, 0xBB, 0xCC}, 2},
        {"longest short form", withContent({0x04, 0x7F}, 127), 127},
        {"shortest long form", withContent({0x04, 0x81, 0x80}, 128), 128, 3},
        {"two length bytes", withContent({0x04, 0x82, 0x01, 0x2C}, 300), 300, 4},
        {"three length bytes", withContent({0x04, 0x83, 0x01, 0x00, 0x00}, 65536), 65536, 5},
        {"context class, tag number 30", {0x9E, 0x00}, 0},
        {"application class, constructed", {0x7E, 0x02, 0x05, 0x00}, 2},

        {"nothing", {}, std::nullopt},
        {"tag alone", {0x04}, std::nullopt},
        {"content past the end", {0x04, 0x02, 0xAA}, std::nullopt},
        {"length bytes past the end", {0x04, 0x82, 0x01}, std::nullopt},
        {"length past the end", {0x04, 0x84, 0xFF, 0xFF, 0xFF, 0xFF}, std::nullopt},
        {"indefinite length", {0x30, 0x80, 0x05, 0x00, 0x00, 0x00}, std::nullopt},
        {"long form of a short length", {0x04, 0x81, 0x01, 0xAA}, std::nullopt},
        {"long form of 127", withContent({0x04, 0x81, 0x7F}, 127), std::nullopt},
        {"leading zero length byte", withContent({0x04, 0x82, 0x00, 0x80}, 128), std::nullopt},
        {"leading zero, empty content", {0x04, 0x84, 0x00, 0x00, 0x00, 0x00}, std::nullopt},
        {"five length bytes", {0x04, 0x85, 0x01, 0x00, 0x00, 0x00, 0x00}, std::nullopt},
        {"long-form tag", {0x1F, 0x1F, 0x00}, std::nullopt},
        {"long-form tag, context class", {0xBF, 0x81, 0x00, 0x00}, std::nullopt},
        {"long-form tag, application class", {0x5F, 0x01, 0x00}, std::nullopt},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto element = readElement(row.bytes);
        ASSERT_EQ(element.has_value(), row.contentSize.has_value());
        if (!element) continue;
        EXPECT_EQ(element->tag, row.bytes[0]);
        EXPECT_EQ(element->content.size(), *row.contentSize);
        EXPECT_EQ(element->content.data(), row.bytes.data() + row.headerSize);
        EXPECT_EQ(element->encoding.size(), row.headerSize + *row.contentSize);
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
    EXPECT_EQ(integer->depth, 1U);
    EXPECT_TRUE(cursor.next(0x04));
    EXPECT_TRUE(cursor.atEnd());
    EXPECT_FALSE(cursor.next());

    const Bytes truncated{0x02, 0x01, 0x05, 0x04, 0x05, 0xAA};
    Cursor broken(truncated);
    EXPECT_TRUE(broken.next());
    EXPECT_FALSE(broken.next());
    EXPECT_FALSE(broken.atEnd());
}

// Only a constructed element holds elements: the content of a primitive one is its value, even
// when it looks like elements.
TEST(Cursor, FindsNoElementsInsideAPrimitiveElement) {
    const Bytes octets{0x04, 0x02, 0x05, 0x00};
    Cursor inside(*readSingleElement(octets));
    EXPECT_FALSE(inside.next());
    EXPECT_FALSE(inside.atEnd());
    EXPECT_FALSE(readInnerElement(*readSingleElement(Bytes{0x80, 0x02, 0x05, 0x00})));

    const auto inner = readInnerElement(*readSingleElement(Bytes{0xA0, 0x02, 0x05, 0x00}));
    ASSERT_TRUE(inner);
    EXPECT_EQ(inner->tag, tag::null);
    EXPECT_FALSE(readInnerElement(*readSingleElement(Bytes{0xA0, 0x04, 0x05, 0x00, 0x05, 0x00})));
    EXPECT_FALSE(readInnerElement(*readSingleElement(Bytes{0xA0, 0x00})));
}

// levels SEQUENCEs, each holding the next, the innermost holding a NULL.
Bytes nested(std::size_t levels) {
    Record record = nullRecord();
    for (std::size_t i = 0; i < levels; ++i) record = sequenceRecord({record});
    return encode(record);
}

// Whether every element inside reads, walking down as deep as they go.
bool readsThrough(const Element& element) {
    if (!element.isConstructed()) return true;
    Cursor children(element);
    while (const auto child = children.next()) {
        if (!readsThrough(*child)) return false;
    }
    return children.atEnd();
}

TEST(Cursor, RefusesElementsNestedDeeperThanTheBound) {
    // The top SEQUENCE is at depth 0, its NULL at depth `levels`.
    EXPECT_TRUE(readsThrough(*readSingleElement(nested(maxDepth))));
    EXPECT_FALSE(readsThrough(*readSingleElement(nested(maxDepth + 1))));
}

// What the encoder writes, the reader reads back as it was built.
TEST(Cursor, ReadsWhatTheEncoderWrites) {
    const Record record = sequenceRecord({integerRecord(-129), octetStringRecord(Bytes(200, 0x11)),
                                          setRecord({nullRecord(), booleanTrueRecord()})});
    const Bytes encoded = encode(record);
    const auto top = readSingleElement(encoded);
    ASSERT_TRUE(top);
    Cursor children(*top);
    for (const auto& built : record.children()) {
        const auto read = children.next(built.tag());
        ASSERT_TRUE(read);
        EXPECT_EQ(Bytes(read->encoding.begin(), read->encoding.end()), encode(built));
    }
    EXPECT_TRUE(children.atEnd());
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
}  // namespace keyloft::der
