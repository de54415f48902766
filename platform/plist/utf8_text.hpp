#pragma once

#include <string_view>

namespace keyloft::platform::plist {

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF. libplist writes
// non-ASCII text as UTF-16 and garbles anything else, so only such text goes in or out.
bool isUtf8(std::string_view text);

}  // namespace keyloft::platform::plist
