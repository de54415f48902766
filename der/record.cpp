#include "der/record.hpp"

namespace keyloft::der {
namespace {

// Replaces each character outside ASCII; one byte per UTF-8 sequence.
constexpr std::uint8_t nonAsciiSubstitute = '?';

void appendLength(Bytes& out, std::size_t length) {
    if (length < 0x80) {
        out.push_back(static_cast<std::uint8_t>(length));
        return;
    }
    Bytes digits;
    for (; length != 0; length >>= 8U)
        digits.insert(digits.begin(), static_cast<std::uint8_t>(length));
    out.push_back(static_cast<std::uint8_t>(0x80 | digits.size()));
    out.insert(out.end(), digits.begin(), digits.end());
}

void encodeInto(Bytes& out, const Record& record) {
    out.push_back(record.tag());
    if (!record.isConstructed()) {
        appendLength(out, record.bytes().size());
        out.insert(out.end(), record.bytes().begin(), record.bytes().end());
        return;
    }
    Bytes content;
    for (const auto& child : record.children()) encodeInto(content, child);
    appendLength(out, content.size());
    out.insert(out.end(), content.begin(), content.end());
}

}  // namespace

const Bytes& Record::bytes() const {
    static const Bytes none;
    const auto* content = std::get_if<Bytes>(&node_->content);
    return content != nullptr ? *content : none;
}

const Record::Children& Record::children() const {
    static const Children none;
    const auto* content = std::get_if<Children>(&node_->content);
    return content != nullptr ? *content : none;
}

bool Record::operator==(const Record& other) const {
    return encode(*this) == encode(other);
}

Record primitiveRecord(std::uint8_t tag, ByteView content) {
    return Record(std::make_shared<const Record::Node>(
        Record::Node{tag, Bytes(content.begin(), content.end())}));
}

Record constructedRecord(std::uint8_t tag, Record::Children children) {
    return Record(std::make_shared<const Record::Node>(Record::Node{tag, std::move(children)}));
}

Bytes encode(const Record& record) {
    Bytes out;
    encodeInto(out, record);
    return out;
}

Record integerRecord(std::int64_t value) {
    Bytes content;
    for (int shift = 56; shift >= 0; shift -= 8) {
        content.push_back(static_cast<std::uint8_t>(static_cast<std::uint64_t>(value) >>
                                                    static_cast<unsigned>(shift)));
    }
    std::size_t start = 0;
    while (start + 1 < content.size() && ((content[start] == 0x00 && content[start + 1] < 0x80) ||
                                          (content[start] == 0xFF && content[start + 1] >= 0x80))) {
        ++start;
    }
    return primitiveRecord(tag::integer, ByteView(content).subspan(start));
}

Record unsignedIntegerRecord(ByteView magnitude) {
    Bytes content;
    if (!magnitude.empty() && magnitude[0] >= 0x80) content.push_back(0x00);
    content.insert(content.end(), magnitude.begin(), magnitude.end());
    return primitiveRecord(tag::integer, content);
}

Record bitStringRecord(ByteView bytes) {
    Bytes content{0x00};
    content.insert(content.end(), bytes.begin(), bytes.end());
    return primitiveRecord(tag::bitString, content);
}

Record namedBitsRecord(std::uint8_t mask) {
    unsigned count = 0;  // 1 + the number of the highest set bit
    for (unsigned bit = 0; bit < 8; ++bit) {
        if (mask & (1U << bit)) count = bit + 1;
    }
    Bytes content(1 + (count + 7) / 8, 0);
    for (unsigned bit = 0; bit < count; ++bit) {
        if (mask & (1U << bit))
            content[1 + bit / 8] |= static_cast<std::uint8_t>(0x80U >> (bit % 8));
    }
    content[0] = static_cast<std::uint8_t>((8 - count % 8) % 8);
    return primitiveRecord(tag::bitString, content);
}

Record octetStringRecord(ByteView bytes) {
    return primitiveRecord(tag::octetString, bytes);
}

Record asciiStringRecord(std::uint8_t tag, std::string_view text) {
    Bytes content;
    content.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<std::uint8_t>(text[i]);
        if (c < 0x80) {
            content.push_back(c);
            continue;
        }
        content.push_back(nonAsciiSubstitute);
        while (i + 1 < text.size() && (static_cast<std::uint8_t>(text[i + 1]) & 0xC0U) == 0x80) ++i;
    }
    return primitiveRecord(tag, content);
}

Record wrapInOctetString(const Record& record) {
    return octetStringRecord(encode(record));
}

const Record& nullRecord() {
    static const Record record = primitiveRecord(tag::null, {});
    return record;
}

const Record& booleanTrueRecord() {
    static const std::uint8_t trueByte = 0xFF;
    static const Record record = primitiveRecord(tag::boolean, ByteView(&trueByte, 1));
    return record;
}

}  // namespace keyloft::der
