#pragma once

#include "base/bytes.hpp"

namespace keyloft::platform::plist {

// libplist aborts the process when it is asked for a dictionary key that holds a NUL character, so
// every string object of a binary property list is checked before libplist parses it. Throws
// PlatformError when a string holds a NUL character or when the offset table or a string's length
// cannot be read.
void checkBinaryPlistStrings(ByteView bytes);

}  // namespace keyloft::platform::plist
