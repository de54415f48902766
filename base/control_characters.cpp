#include "base/control_characters.hpp"

#include <cstdint>
#include <optional>

#include "base/utf8.hpp"

namespace keyloft {
namespace {

// C0, DEL, or C1 (U+0080 to U+009F, encoded C2 80 to C2 9F).
std::optional<std::uint8_t> controlCode(std::string_view sequence) {
    const auto lead = static_cast<std::uint8_t>(sequence[0]);
    if (sequence.size() == 1) {
        if (lead < 0x20 || lead == 0x7F) return lead;
        return std::nullopt;
    }
    const auto next = static_cast<std::uint8_t>(sequence[1]);
    if (sequence.size() == 2 && lead == 0xC2 && next <= 0x9F) return next;
    return std::nullopt;
}

// Calls keep(sequence) for each valid character that is not a control character, and
// drop(code) for each control character or stray byte.
template <class Keep, class Drop>
void walk(std::string_view text, Keep keep, Drop drop) {
    while (!text.empty()) {
        const std::size_t length = utf8SequenceLength(text);
        if (length == 0) {
            drop(static_cast<std::uint8_t>(text[0]));
            text.remove_prefix(1);
            continue;
        }
        const auto sequence = text.substr(0, length);
        if (const auto code = controlCode(sequence)) {
            drop(*code);
        } else {
            keep(sequence);
        }
        text.remove_prefix(length);
    }
}

}  // namespace

std::string escapeControlCharacters(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    walk(
        text, [&](std::string_view sequence) { out += sequence; },
        [&](std::uint8_t code) {
            constexpr char digits[] = "0123456789ABCDEF";
            out += "\\x";
            out += digits[code >> 4U];
            out += digits[code & 0x0FU];
        });
    return out;
}

std::string withoutControlCharacters(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    walk(
        text, [&](std::string_view sequence) { out += sequence; }, [](std::uint8_t) {});
    return out;
}

}  // namespace keyloft
