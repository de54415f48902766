#pragma once

#include <string>

#include "platform/token_store/token_items.hpp"

namespace keyloft::pubkey {

// The listing's key-type text: "rsa-<bits>"; "p-<bits>" for EC keys, with "-ne" when the key is
// bound to the key processor (not exportable); "unknown" otherwise.
std::string keyTypeDescription(const platform::token_store::KeyItem& item, bool exportable);

}  // namespace keyloft::pubkey
