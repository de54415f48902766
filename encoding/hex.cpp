#include "encoding/hex.hpp"

namespace keyloft::encoding {
namespace {

std::optional<std::uint8_t> nibble(char digit) {
    if (digit >= '0' && digit <= '9') return static_cast<std::uint8_t>(digit - '0');
    if (digit >= 'A' && digit <= 'F') return static_cast<std::uint8_t>(digit - 'A' + 10);
    if (digit >= 'a' && digit <= 'f') return static_cast<std::uint8_t>(digit - 'a' + 10);
    return std::nullopt;
}

}  // namespace

std::string toHexString(ByteView bytes) {
    static constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4U];
        text += digits[byte & 0x0FU];
    }
    return text;
}

std::optional<Bytes> fromHexString(std::string_view text) {
    if (text.size() % 2 != 0) return std::nullopt;
    Bytes bytes;
    bytes.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const auto high = nibble(text[i]);
        const auto low = nibble(text[i + 1]);
        if (!high || !low) return std::nullopt;
        bytes.push_back(static_cast<std::uint8_t>((*high << 4U) | *low));
    }
    return bytes;
}

}  // namespace keyloft::encoding
