#pragma once

#include <string_view>

namespace keyloft::platform::plist {

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF. Non-ASCII text is
// stored as UTF-16, which only such text converts to and from unchanged.
bool isUtf8(std::string_view text);

}  // namespace keyloft::platform::plist
