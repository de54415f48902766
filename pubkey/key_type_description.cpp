#include "pubkey/key_type_description.hpp"

#include "base/public_key_attributes.hpp"

namespace keyloft::pubkey {

std::string keyTypeDescription(const platform::token_store::KeyItem& item, bool exportable) {
    const std::string bits = std::to_string(item.keySizeInBits);
    if (item.keyType == keyTypeRSA) return "rsa-" + bits;
    if (item.keyType == keyTypeEC) return "p-" + bits + (exportable ? "" : "-ne");
    return "unknown";
}

}  // namespace keyloft::pubkey
