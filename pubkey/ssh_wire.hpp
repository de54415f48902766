#pragma once

#include <cstdint>
#include <string_view>

#include "base/bytes.hpp"

// The SSH wire primitives (RFC 4251 section 5), each appended to a growing buffer. A field of
// 2^32 bytes or more cannot be written and throws KeyloftError.
namespace keyloft::pubkey {

void appendUInt32(Bytes& buffer, std::uint32_t value);

// A string of ASCII text.
void appendString(Bytes& buffer, std::string_view text);

// A string of bytes.
void appendData(Bytes& buffer, ByteView data);

// An unsigned big-endian magnitude as a positive mpint: a 0x00 byte goes in front when the high bit
// of the first byte is set; the magnitude itself is written unchanged.
void appendMPInt(Bytes& buffer, ByteView magnitude);

}  // namespace keyloft::pubkey
