#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/bytes.hpp"

namespace keyloft::encoding {

// Standard base64 (RFC 4648 alphabet) with "=" padding, no line breaks.
std::string base64Encode(ByteView bytes);

// Strict decoding: only the alphabet and correct trailing padding; nothing is skipped.
std::optional<Bytes> base64Decode(std::string_view text);

}  // namespace keyloft::encoding
