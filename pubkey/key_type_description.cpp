#include "pubkey/key_type_description.hpp"

#include "base/public_key_attributes.hpp"

namespace keyloft::pubkey {

std::string keyTypeDescription(const PublicKeyAttributes& key, bool exportable) {
    const std::string bits = std::to_string(key.sizeInBits);
    if (key.keyType == keyTypeRSA) return "rsa-" + bits;
    if (key.keyType == keyTypeEC) return "p-" + bits + (exportable ? "" : "-ne");
    return "unknown";
}

}  // namespace keyloft::pubkey
