#include "der/reader.hpp"

namespace keyloft::der {
namespace {

constexpr std::size_t maxLengthBytes = 4;

std::optional<Element> readElementAt(ByteView bytes, std::size_t depth) {
    if (depth > maxDepth || bytes.size() < 2) return std::nullopt;
    const std::uint8_t tagByte = bytes[0];
    if ((tagByte & tag::numberBits) == tag::numberBits) return std::nullopt;
    std::size_t length = bytes[1];
    std::size_t header = 2;
    if (length & 0x80U) {
        // 0x80 (indefinite) is refused, and so is a long form a shorter one could hold: a leading
        // zero byte, or one byte below 0x80.
        const std::size_t count = length & 0x7FU;
        if (count == 0 || count > maxLengthBytes || bytes.size() < header + count ||
            bytes[header] == 0) {
            return std::nullopt;
        }
        length = 0;
        for (std::size_t i = 0; i < count; ++i) length = (length << 8U) | bytes[header + i];
        if (length < 0x80) return std::nullopt;
        header += count;
    }
    if (length > bytes.size() - header) return std::nullopt;
    return Element{tagByte, bytes.subspan(header, length), bytes.first(header + length), depth};
}

}  // namespace

std::optional<Element> readElement(ByteView bytes) {
    return readElementAt(bytes, 0);
}

std::optional<Element> readSingleElement(ByteView bytes) {
    auto element = readElement(bytes);
    if (!element || element->encoding.size() != bytes.size()) return std::nullopt;
    return element;
}

std::optional<Element> Cursor::next() {
    if (refused_) return std::nullopt;
    auto element = readElementAt(rest_, depth_);
    if (element) rest_ = rest_.subspan(element->encoding.size());
    return element;
}

std::optional<Element> Cursor::next(std::uint8_t wanted) {
    if (rest_.empty() || rest_[0] != wanted) return std::nullopt;
    return next();
}

std::optional<Element> readInnerElement(const Element& parent) {
    Cursor inside(parent);
    auto element = inside.next();
    if (!element || !inside.atEnd()) return std::nullopt;
    return element;
}

bool isMinimalInteger(ByteView content) {
    if (content.empty()) return false;
    if (content.size() == 1) return true;
    const bool redundantZero = content[0] == 0x00 && content[1] < 0x80;
    const bool redundantOnes = content[0] == 0xFF && content[1] >= 0x80;
    return !redundantZero && !redundantOnes;
}

bool isObjectIdentifier(ByteView content) {
    if (content.empty() || (content.back() & 0x80U)) return false;
    for (std::size_t i = 0; i < content.size(); ++i) {
        const bool startsSubIdentifier = i == 0 || !(content[i - 1] & 0x80U);
        if (startsSubIdentifier && content[i] == 0x80) return false;
    }
    return true;
}

bool isBitString(ByteView content) {
    return !content.empty() && content[0] <= 7;
}

}  // namespace keyloft::der
