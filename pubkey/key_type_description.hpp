#pragma once

#include <string>

#include "platform/tessera/token_items.hpp"

namespace keyloft::pubkey {

// The listing's key-type text: "rsa-<bits>"; "p-<bits>" for EC keys, with "-ne" when the key is
// bound to the key processor (not exportable); "unknown" otherwise.
std::string keyTypeDescription(const platform::TesseraTokenKeyItem& item, bool exportable);

}  // namespace keyloft::pubkey
