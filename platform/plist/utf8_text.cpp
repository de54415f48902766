#include "platform/plist/utf8_text.hpp"

#include <optional>

namespace keyloft::platform::plist {
namespace {

// The length of the UTF-8 sequence that the byte begins, the smallest code point that needs that
// length, and the code point bits the byte carries; nothing for a byte that cannot begin one.
struct SequenceStart {
    std::size_t length;
    char32_t minimum;
    char32_t bits;
};

std::optional<SequenceStart> sequenceStart(unsigned char lead) {
    if (lead < 0x80) return SequenceStart{1, 0, lead};
    if ((lead & 0xE0U) == 0xC0) return SequenceStart{2, 0x80, lead & 0x1FU};
    if ((lead & 0xF0U) == 0xE0) return SequenceStart{3, 0x800, lead & 0x0FU};
    if ((lead & 0xF8U) == 0xF0) return SequenceStart{4, 0x10000, lead & 0x07U};
    return std::nullopt;
}

}  // namespace

bool isUtf8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto start = sequenceStart(static_cast<unsigned char>(text[i]));
        if (!start || start->length > text.size() - i) return false;
        char32_t codePoint = start->bits;
        for (std::size_t j = 1; j < start->length; ++j) {
            const auto continuation = static_cast<unsigned char>(text[i + j]);
            if ((continuation & 0xC0U) != 0x80) return false;
            codePoint = (codePoint << 6U) | (continuation & 0x3FU);
        }
        if (codePoint < start->minimum || codePoint > 0x10FFFF ||
            (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
            return false;
        }
        i += start->length;
    }
    return true;
}

}  // namespace keyloft::platform::plist
