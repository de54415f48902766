#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Strict UTF-8, as every reader of text here takes it: no overlong forms, no surrogates,
// nothing above U+10FFFF.
namespace keyloft {

// The length of the valid UTF-8 sequence at the start of the text, or 0 when none starts there.
std::size_t utf8SequenceLength(std::string_view text);

bool isUtf8(std::string_view text);

// Appends the code point, a Unicode scalar value, as UTF-8.
void appendUtf8(std::string& out, std::uint32_t codePoint);

}  // namespace keyloft
