#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/bytes.hpp"

namespace keyloft::encoding {

// Two upper-case hex digits per byte, no separator: the printed form of a public-key hash.
std::string toHexString(ByteView bytes);

// Hex text of any even length, digits in either case; nothing when any pair is not two hex digits.
std::optional<Bytes> fromHexString(std::string_view text);

}  // namespace keyloft::encoding
