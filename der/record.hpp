#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <variant>
#include <vector>

#include "base/bytes.hpp"
#include "der/tags.hpp"

namespace keyloft::der {

// An immutable DER record (tag, length, value) to be encoded: built bottom-up as a tree and encoded
// once. Children are shared, never copied or changed. DER is read by der/reader.hpp.
class Record {
  public:
    using Children = std::vector<Record>;

    std::uint8_t tag() const { return node_->tag; }
    bool isConstructed() const { return std::holds_alternative<Children>(node_->content); }
    // Content of a primitive record (empty for a constructed one).
    const Bytes& bytes() const;
    // Children of a constructed record (empty for a primitive one).
    const Children& children() const;

    bool operator==(const Record& other) const;

    friend Record primitiveRecord(std::uint8_t tag, ByteView content);
    friend Record constructedRecord(std::uint8_t tag, Children children);

  private:
    struct Node {
        std::uint8_t tag;
        std::variant<Bytes, Children> content;
    };
    explicit Record(std::shared_ptr<const Node> node) : node_(std::move(node)) {}
    std::shared_ptr<const Node> node_;
};

Record primitiveRecord(std::uint8_t tag, ByteView content);
Record constructedRecord(std::uint8_t tag, Record::Children children);
inline Record sequenceRecord(Record::Children children) {
    return constructedRecord(tag::sequence, std::move(children));
}
inline Record setRecord(Record::Children children) {
    return constructedRecord(tag::set, std::move(children));
}

Bytes encode(const Record& record);

Record integerRecord(std::int64_t value);
Record unsignedIntegerRecord(ByteView magnitude);
Record bitStringRecord(ByteView bytes);
Record namedBitsRecord(std::uint8_t mask);
Record octetStringRecord(ByteView bytes);
Record asciiStringRecord(std::uint8_t tag, std::string_view text);
Record wrapInOctetString(const Record& record);
const Record& nullRecord();
const Record& booleanTrueRecord();

}  // namespace keyloft::der
