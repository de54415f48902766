#pragma once

#include "base/bytes.hpp"
#include "platform/plist/plist_value.hpp"

namespace keyloft::platform::plist {

// Reads a binary property list ("bplist00"); throws PlatformError when the bytes are not one.
PlistValue fromBinary(ByteView bytes);

// Writes the value as a binary property list; throws PlatformError for values that cannot be
// written (unsupported nodes, strings with a NUL character).
Bytes toBinary(const PlistValue& value);

}  // namespace keyloft::platform::plist
