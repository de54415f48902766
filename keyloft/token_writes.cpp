#include "keyloft/token_writes.hpp"

#include "keyloft/error.hpp"
#include "keys/stored_key_codec.hpp"
#include "platform/crypto/key_types.hpp"

namespace keyloft {

IdentityItems makeIdentityItems(ByteView certificate, ByteView hash, const std::string& label) {
    auto certificateItem = platform::makeCertificateItem(certificate, hash);
    if (!certificateItem) throw KeyloftError::generic("Failed to create Tessera certificate");
    auto keyItem = platform::makeKeyItem(certificate, hash);
    if (!keyItem) throw KeyloftError::generic("Failed to create Tessera key");
    keyItem->canSign = true;
    if (keyItem->keyType == platform::keyTypeRSA) {
        keyItem->canDecrypt = true;
        keyItem->canPerformKeyExchange = false;
    } else if (keyItem->keyType == platform::keyTypeEC) {
        keyItem->canDecrypt = false;
        keyItem->canPerformKeyExchange = true;
    }
    keyItem->label = label;
    certificateItem->label = label;
    return {std::move(*certificateItem), std::move(*keyItem)};
}

void appendIdentityItems(const platform::TesseraTokenConfiguration& token,
                         const IdentityItems& items) {
    auto list = token.items();
    list.emplace_back(items.certificate);
    token.replaceItems(list);
    list.emplace_back(items.key);
    token.replaceItems(list);
}

void storeKeyRecord(const platform::TesseraTokenConfiguration& token, keys::StoredKeyMap records,
                    const Bytes& hash, keys::KeyStorage storage) {
    records[hash] = std::move(storage);
    token.replaceConfigurationData(keys::encodeStoredKeys(records));
}

}  // namespace keyloft
