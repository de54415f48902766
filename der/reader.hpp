#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "base/bytes.hpp"
#include "der/tags.hpp"

// Reads DER in place: every view points into the bytes being read, nothing is copied or allocated.
// Every reader of DER here goes through it, so one set of rules holds everywhere:
// - a tag is one byte: tag numbers of 31 and more (the long form) are refused;
// - lengths are definite, in their shortest form, in at most four length bytes;
// - only a constructed element has elements inside it, nested at most maxDepth deep.
namespace keyloft::der {

// Deeper than any structure read here (a certificate's names nest about ten deep).
inline constexpr std::size_t maxDepth = 32;

struct Element {
    std::uint8_t tag = 0;
    ByteView content;
    ByteView encoding;  // tag, length and content
    std::size_t depth =
        0;  // 0 for an element read from bytes; one more than its parent's inside it

    bool isConstructed() const { return (tag & tag::constructedBit) != 0; }
};

// The element at the front of the bytes, or nothing when no complete element starts there.
std::optional<Element> readElement(ByteView bytes);

// The one element that fills the bytes exactly, or nothing.
std::optional<Element> readSingleElement(ByteView bytes);

// Walks a run of elements front to back: the bytes given, or the content of a constructed element.
class Cursor {
  public:
    explicit Cursor(ByteView bytes) : rest_(bytes) {}
    // A primitive parent has no elements inside: next() gives nothing, and atEnd() is false unless
    // its content is empty.
    explicit Cursor(const Element& parent)
        : rest_(parent.content), depth_(parent.depth + 1), refused_(!parent.isConstructed()) {}

    bool atEnd() const { return rest_.empty(); }

    // The next element. Nothing at the end, or when what follows is not a complete element or lies
    // deeper than maxDepth; the cursor then stays where it is, so a caller that ends on atEnd()
    // sees the fault.
    std::optional<Element> next();
    // The next element if it has this tag; otherwise nothing, and the cursor stays.
    std::optional<Element> next(std::uint8_t tag);

  private:
    ByteView rest_;
    std::size_t depth_ = 0;
    bool refused_ = false;
};

// The one element that fills a constructed element's content, as under an explicit tag.
std::optional<Element> readInnerElement(const Element& parent);

// INTEGER content as every DER reader takes it: at least one byte, no redundant leading byte.
bool isMinimalInteger(ByteView content);
// OBJECT IDENTIFIER content: at least one byte, the last ending a sub-identifier, and no
// sub-identifier padded with a leading 0x80.
bool isObjectIdentifier(ByteView content);
// BIT STRING content: the unused-bit count (0 to 7) and the bits.
bool isBitString(ByteView content);

}  // namespace keyloft::der
