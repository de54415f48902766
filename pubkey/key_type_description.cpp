#include "pubkey/key_type_description.hpp"

#include "platform/crypto/key_types.hpp"

namespace keyloft::pubkey {

std::string keyTypeDescription(const platform::TesseraTokenKeyItem& item, bool exportable) {
    const std::string bits = std::to_string(item.keySizeInBits);
    if (item.keyType == platform::keyTypeRSA) return "rsa-" + bits;
    if (item.keyType == platform::keyTypeEC) return "p-" + bits + (exportable ? "" : "-ne");
    return "unknown";
}

}  // namespace keyloft::pubkey
