#pragma once

#include <string_view>

namespace keyloft::platform::text {

// Unicode text equality of two UTF-8 passwords: canonically equivalent spellings (composed or
// decomposed accents, reordered combining marks) are equal. Throws PlatformError when ICU fails.
bool canonicallyEqual(std::string_view a, std::string_view b);

}  // namespace keyloft::platform::text
