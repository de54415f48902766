#pragma once

#include <cstdint>
#include <optional>

#include "base/bytes.hpp"

// Reads DER elements in place: every view points into the bytes being read, nothing is copied or
// allocated. Tags are single bytes (a tag number of 31 or more is refused) and lengths definite,
// in at most four length bytes.
namespace keyloft::der_reader {

namespace tag {
inline constexpr std::uint8_t boolean = 0x01;
inline constexpr std::uint8_t integer = 0x02;
inline constexpr std::uint8_t bitString = 0x03;
inline constexpr std::uint8_t octetString = 0x04;
inline constexpr std::uint8_t null = 0x05;
inline constexpr std::uint8_t objectIdentifier = 0x06;
inline constexpr std::uint8_t utcTime = 0x17;
inline constexpr std::uint8_t generalizedTime = 0x18;
inline constexpr std::uint8_t sequence = 0x30;
inline constexpr std::uint8_t set = 0x31;
inline constexpr std::uint8_t constructedBit = 0x20;
inline constexpr std::uint8_t classBits = 0xC0;
inline constexpr std::uint8_t numberBits = 0x1F;
}  // namespace tag

struct Element {
    std::uint8_t tag = 0;
    ByteView content;
    ByteView encoding;  // tag, length and content
};

// The element at the front of the bytes, or nothing when no complete element starts there.
std::optional<Element> readElement(ByteView bytes);

// The one element that fills the bytes exactly, or nothing.
std::optional<Element> readSingleElement(ByteView bytes);

// Walks a run of elements front to back, such as the content of a constructed element.
class Cursor {
  public:
    explicit Cursor(ByteView bytes) : rest_(bytes) {}
    explicit Cursor(const Element& parent) : rest_(parent.content) {}

    bool atEnd() const { return rest_.empty(); }

    // The next element. Nothing at the end, or when what follows is not a complete element; the
    // cursor then stays where it is, so a caller that ends on atEnd() sees the fault.
    std::optional<Element> next();
    // The next element if it has this tag; otherwise nothing, and the cursor stays.
    std::optional<Element> next(std::uint8_t tag);

  private:
    ByteView rest_;
};

// INTEGER content as every DER reader takes it: at least one byte, no redundant leading byte.
bool isMinimalInteger(ByteView content);
// OBJECT IDENTIFIER content: at least one byte, the last ending a sub-identifier, and no
// sub-identifier padded with a leading 0x80.
bool isObjectIdentifier(ByteView content);
// BIT STRING content: the unused-bit count (0 to 7) and the bits.
bool isBitString(ByteView content);

}  // namespace keyloft::der_reader
