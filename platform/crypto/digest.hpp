#pragma once

#include "keyloft/bytes.hpp"

namespace keyloft::platform {

Bytes sha1(ByteView data);
Bytes sha256(ByteView data);
Bytes sha384(ByteView data);
Bytes hmacSha1(ByteView key, ByteView message);

}  // namespace keyloft::platform
