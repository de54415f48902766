#pragma once

#include <string_view>

#include "platform/crypto/secret.hpp"

namespace keyloft::platform {

// UTF-16 big-endian of UTF-8 text, without byte-order mark; invalid UTF-8 becomes U+FFFD.
SecretBytes utf16BigEndian(std::string_view utf8);

// Unicode text equality, canonically equivalent spellings being equal.
bool canonicallyEqual(std::string_view a, std::string_view b);

}  // namespace keyloft::platform
