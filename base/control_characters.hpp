#pragma once

#include <string>
#include <string_view>

// Text from certificates and command lines may hold control characters (C0, DEL, C1) that a
// terminal would act on or that would split a line. These give the forms shown to terminals and
// to applications; the stored text stays as it was given.
namespace keyloft {

// Each control character, and each byte that does not belong to valid UTF-8, as \xHH (its code
// point, or the byte, in upper-case hex).
std::string escapeControlCharacters(std::string_view text);

// The text without control characters and without bytes that do not belong to valid UTF-8.
std::string withoutControlCharacters(std::string_view text);

}  // namespace keyloft
