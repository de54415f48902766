#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <variant>
#include <vector>

#include "base/bytes.hpp"
#include "base/der_reader.hpp"

namespace keyloft::der {

// An immutable TLV record, encoded in DER. Children are shared, never copied or changed.
class BerTlvRecord {
  public:
    using Children = std::vector<BerTlvRecord>;

    std::uint8_t tag() const { return node_->tag; }
    bool isConstructed() const { return std::holds_alternative<Children>(node_->content); }
    // Content of a primitive record (empty for a constructed one).
    const Bytes& bytes() const;
    // Children of a constructed record (empty for a primitive one).
    const Children& children() const;

    bool operator==(const BerTlvRecord& other) const;

    friend BerTlvRecord primitiveRecord(std::uint8_t tag, ByteView content);
    friend BerTlvRecord constructedRecord(std::uint8_t tag, Children children);

  private:
    struct Node {
        std::uint8_t tag;
        std::variant<Bytes, Children> content;
    };
    explicit BerTlvRecord(std::shared_ptr<const Node> node) : node_(std::move(node)) {}
    std::shared_ptr<const Node> node_;
};

// The reader's tags, and those only records are built with.
namespace tag {
using namespace der_reader::tag;
inline constexpr std::uint8_t utf8String = 0x0C;
inline constexpr std::uint8_t printableString = 0x13;
inline constexpr std::uint8_t ia5String = 0x16;
inline constexpr std::uint8_t contextPrimitive0 = 0x80;
inline constexpr std::uint8_t contextPrimitive1 = 0x81;
inline constexpr std::uint8_t contextConstructed0 = 0xA0;
inline constexpr std::uint8_t contextConstructed1 = 0xA1;
inline constexpr std::uint8_t contextConstructed3 = 0xA3;
}  // namespace tag

BerTlvRecord primitiveRecord(std::uint8_t tag, ByteView content);
BerTlvRecord constructedRecord(std::uint8_t tag, BerTlvRecord::Children children);
inline BerTlvRecord sequenceRecord(BerTlvRecord::Children children) {
    return constructedRecord(tag::sequence, std::move(children));
}
inline BerTlvRecord setRecord(BerTlvRecord::Children children) {
    return constructedRecord(tag::set, std::move(children));
}

Bytes encode(const BerTlvRecord& record);

BerTlvRecord integerRecord(std::int64_t value);
BerTlvRecord unsignedIntegerRecord(ByteView magnitude);
BerTlvRecord bitStringRecord(ByteView bytes);
BerTlvRecord namedBitsRecord(std::uint8_t mask);
BerTlvRecord octetStringRecord(ByteView bytes);
BerTlvRecord asciiStringRecord(std::uint8_t tag, std::string_view text);
BerTlvRecord wrapInOctetString(const BerTlvRecord& record);
const BerTlvRecord& nullRecord();
const BerTlvRecord& booleanTrueRecord();

// One complete record filling the whole input, or nothing. The record is primitive: its content
// is kept as bytes, which parseContents splits when it holds records.
std::optional<BerTlvRecord> parseRecord(ByteView bytes);
// The records that exactly fill a constructed record's content, or nothing.
std::optional<BerTlvRecord::Children> parseContents(ByteView content);

}  // namespace keyloft::der
