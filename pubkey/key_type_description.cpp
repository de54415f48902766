#include "pubkey/key_type_description.hpp"

#include "base/key_types.hpp"

namespace keyloft::pubkey {

std::string keyTypeDescription(const platform::token_store::TesseraTokenKeyItem& item,
                               bool exportable) {
    const std::string bits = std::to_string(item.keySizeInBits);
    if (item.keyType == keyTypeRSA) return "rsa-" + bits;
    if (item.keyType == keyTypeEC) return "p-" + bits + (exportable ? "" : "-ne");
    return "unknown";
}

}  // namespace keyloft::pubkey
