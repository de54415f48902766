#pragma once

#include <string_view>
#include <vector>

#include "platform/crypto/secret.hpp"

namespace keyloft::platform::text {

// UTF-16 code units of a password, in wiped storage.
using SecretUtf16 = std::vector<char16_t, crypto::WipingAllocator<char16_t>>;

// UTF-16 of UTF-8 text, surrogate pairs beyond U+FFFF; invalid UTF-8 becomes U+FFFD.
// Throws PlatformError when the text cannot be converted (more than 2^31 bytes).
SecretUtf16 utf16Units(std::string_view utf8);

// The same as big-endian bytes, without byte-order mark.
crypto::SecretBytes utf16BigEndian(std::string_view utf8);

}  // namespace keyloft::platform::text
