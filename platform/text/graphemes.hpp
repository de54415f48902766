#pragma once

#include <cstddef>
#include <string_view>

namespace keyloft::platform::text {

// Number of user-perceived characters (extended grapheme clusters) of UTF-8 text.
std::size_t userPerceivedLength(std::string_view utf8);

}  // namespace keyloft::platform::text
