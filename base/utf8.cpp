#include "base/utf8.hpp"

namespace keyloft {

std::size_t utf8SequenceLength(std::string_view text) {
    if (text.empty()) return 0;
    const auto lead = static_cast<std::uint8_t>(text[0]);
    std::size_t length = 0;
    std::uint32_t codePoint = 0;
    if (lead < 0x80) return 1;
    if ((lead & 0xE0U) == 0xC0) {
        length = 2, codePoint = lead & 0x1FU;
    } else if ((lead & 0xF0U) == 0xE0) {
        length = 3, codePoint = lead & 0x0FU;
    } else if ((lead & 0xF8U) == 0xF0) {
        length = 4, codePoint = lead & 0x07U;
    } else {
        return 0;
    }
    if (text.size() < length) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        const auto continuation = static_cast<std::uint8_t>(text[i]);
        if ((continuation & 0xC0U) != 0x80) return 0;
        codePoint = (codePoint << 6U) | (continuation & 0x3FU);
    }
    constexpr std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < smallest[length] || codePoint > 0x10FFFF ||
        (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
        return 0;
    }
    return length;
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = utf8SequenceLength(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

void appendUtf8(std::string& out, std::uint32_t codePoint) {
    if (codePoint < 0x80) {
        out += static_cast<char>(codePoint);
        return;
    }
    const unsigned length = codePoint < 0x800 ? 2 : codePoint < 0x10000 ? 3 : 4;
    constexpr std::uint8_t leads[] = {0, 0, 0xC0, 0xE0, 0xF0};
    out += static_cast<char>(leads[length] | (codePoint >> (6U * (length - 1))));
    for (unsigned i = length - 1; i-- > 0;)
        out += static_cast<char>(0x80 | ((codePoint >> (6U * i)) & 0x3FU));
}

}  // namespace keyloft
