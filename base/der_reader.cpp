#include "base/der_reader.hpp"

namespace keyloft::der_reader {
namespace {

constexpr std::size_t maxLengthBytes = 4;

}  // namespace

std::optional<Element> readElement(ByteView bytes) {
    if (bytes.size() < 2) return std::nullopt;
    const std::uint8_t tagByte = bytes[0];
    if ((tagByte & tag::numberBits) == tag::numberBits) return std::nullopt;
    std::size_t length = bytes[1];
    std::size_t header = 2;
    if (length & 0x80U) {
        // Long lengths that a shorter form could hold (0x81 0x05, 0x82 0x00 0x90) are read as
        // their value: certificates written that way are still read by OpenSSL, and refusing
        // them would drop identities the tool has always listed. 0x80 (indefinite) is refused.
        const std::size_t count = length & 0x7FU;
        if (count == 0 || count > maxLengthBytes || bytes.size() < header + count)
            return std::nullopt;
        length = 0;
        for (std::size_t i = 0; i < count; ++i) length = (length << 8U) | bytes[header + i];
        header += count;
    }
    if (length > bytes.size() - header) return std::nullopt;
    return Element{tagByte, bytes.subspan(header, length), bytes.first(header + length)};
}

std::optional<Element> readSingleElement(ByteView bytes) {
    auto element = readElement(bytes);
    if (!element || element->encoding.size() != bytes.size()) return std::nullopt;
    return element;
}

std::optional<Element> Cursor::next() {
    auto element = readElement(rest_);
    if (element) rest_ = rest_.subspan(element->encoding.size());
    return element;
}

std::optional<Element> Cursor::next(std::uint8_t wanted) {
    if (rest_.empty() || rest_[0] != wanted) return std::nullopt;
    return next();
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

}  // namespace keyloft::der_reader
