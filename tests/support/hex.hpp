#pragma once

#include <string>

#include "base/bytes.hpp"

namespace keyloft::testing {

inline std::string hex(ByteView bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for (const auto byte : bytes) {
        out += digits[byte >> 4U];
        out += digits[byte & 0xFU];
    }
    return out;
}

// Reads hex digits up to the first character that is not one (e.g. a trailing newline).
inline Bytes unhex(const std::string& text) {
    Bytes out;
    for (std::size_t i = 0;
         i + 1 < text.size() && std::isxdigit(text[i]) && std::isxdigit(text[i + 1]); i += 2) {
        out.push_back(static_cast<std::uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
    }
    return out;
}

}  // namespace keyloft::testing
