#pragma once

#include <string>

#include "base/public_key_attributes.hpp"

namespace keyloft::pubkey {

// The listing's key-type text: "rsa-<bits>"; "p-<bits>" for EC keys, with "-ne" when the key is
// bound to the key processor (not exportable); "unknown" otherwise.
std::string keyTypeDescription(const PublicKeyAttributes& key, bool exportable);

}  // namespace keyloft::pubkey
