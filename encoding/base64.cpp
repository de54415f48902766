#include "encoding/base64.hpp"

#include <array>

namespace keyloft::encoding {
namespace {

constexpr std::string_view alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int, 256> decodeTable() {
    std::array<int, 256> table{};
    table.fill(-1);
    for (std::size_t i = 0; i < alphabet.size(); ++i) {
        table[static_cast<unsigned char>(alphabet[i])] = static_cast<int>(i);
    }
    return table;
}

}  // namespace

std::string base64Encode(ByteView bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const unsigned v = (bytes[i] << 16U) | (bytes[i + 1] << 8U) | bytes[i + 2];
        out += alphabet[(v >> 18U) & 63U];
        out += alphabet[(v >> 12U) & 63U];
        out += alphabet[(v >> 6U) & 63U];
        out += alphabet[v & 63U];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        unsigned v = bytes[i] << 16U;
        if (rest == 2) v |= bytes[i + 1] << 8U;
        out += alphabet[(v >> 18U) & 63U];
        out += alphabet[(v >> 12U) & 63U];
        out += rest == 2 ? alphabet[(v >> 6U) & 63U] : '=';
        out += '=';
    }
    return out;
}

std::optional<Bytes> base64Decode(std::string_view text) {
    static constexpr auto table = decodeTable();
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    if (!text.empty() && text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;
    Bytes out;
    out.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        unsigned v = 0;
        for (std::size_t j = 0; j < 4; ++j) {
            const char c = text[i + j];
            int digit = 0;
            if (c == '=' && last && j >= 4 - padding) {
                digit = 0;
            } else {
                digit = table[static_cast<unsigned char>(c)];
                if (digit < 0) return std::nullopt;
            }
            v = (v << 6U) | static_cast<unsigned>(digit);
        }
        out.push_back(static_cast<std::uint8_t>(v >> 16U));
        if (!last || padding < 2) out.push_back(static_cast<std::uint8_t>(v >> 8U));
        if (!last || padding < 1) out.push_back(static_cast<std::uint8_t>(v));
        // Bits below the padding must be zero, or the text is not the encoding of any bytes.
        if (last && ((padding == 2 && (v & 0xFFFFU) != 0) || (padding == 1 && (v & 0xFFU) != 0))) {
            return std::nullopt;
        }
    }
    return out;
}

}  // namespace keyloft::encoding
