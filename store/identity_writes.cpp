#include "store/identity_writes.hpp"

#include <algorithm>

#include "base/error.hpp"
#include "base/key_types.hpp"
#include "keys/stored_key_codec.hpp"
#include "store/identity_lookup.hpp"

namespace keyloft::store {

IdentityItems makeIdentityItems(ByteView certificate, ByteView hash, const std::string& label) {
    auto certificateItem = platform::token_store::makeCertificateItem(certificate, hash);
    if (!certificateItem) throw KeyloftError::generic("Failed to create Tessera certificate");
    auto keyItem = platform::token_store::makeKeyItem(certificate, hash);
    if (!keyItem) throw KeyloftError::generic("Failed to create Tessera key");
    keyItem->canSign = true;
    if (keyItem->keyType == keyTypeRSA) {
        keyItem->canDecrypt = true;
        keyItem->canPerformKeyExchange = false;
    } else if (keyItem->keyType == keyTypeEC) {
        keyItem->canDecrypt = false;
        keyItem->canPerformKeyExchange = true;
    }
    keyItem->label = label;
    certificateItem->label = label;
    return {std::move(*certificateItem), std::move(*keyItem)};
}

void appendIdentityItems(const platform::token_store::TesseraTokenConfiguration& token,
                         const IdentityItems& items) {
    auto list = token.items();
    list.emplace_back(items.certificate);
    token.replaceItems(list);
    list.emplace_back(items.key);
    token.replaceItems(list);
}

void storeKeyRecord(const platform::token_store::TesseraTokenConfiguration& token,
                    keys::StoredKeyMap records, const Bytes& hash, keys::KeyStorage storage) {
    records[hash] = std::move(storage);
    token.replaceConfigurationData(keys::encodeStoredKeys(records));
}

void removeIdentityItems(const platform::token_store::TesseraTokenConfiguration& token,
                         ByteView hash) {
    const auto items = token.items();
    platform::token_store::TesseraTokenItems kept;
    kept.reserve(items.size());
    try {
        for (const auto& item : items) {
            if (!itemMatchesHash(item, hash)) kept.push_back(item);
        }
    } catch (const KeyloftError&) {
        token.replaceItems(items);
        throw;
    }
    token.replaceItems(kept);
}

void removeKeyRecord(const platform::token_store::TesseraTokenConfiguration& token, ByteView hash) {
    auto records = keys::decodeStoredKeys(token.configurationData());
    records.erase(Bytes(hash.begin(), hash.end()));
    token.replaceConfigurationData(keys::encodeStoredKeys(records));
}

bool replaceCertificateItem(const platform::token_store::TesseraTokenConfiguration& token,
                            ByteView certificate, ByteView hash) {
    auto items = token.items();
    const auto old = findCertificateItem(items, hash);
    if (old == items.end()) return false;
    auto item = platform::token_store::makeCertificateItem(certificate, hash);
    if (!item) throw KeyloftError::generic("Failed to create token certificate");
    items.erase(old);
    items.emplace_back(std::move(*item));
    token.replaceItems(items);
    return true;
}

void removeAllIdentities(const platform::token_store::TesseraTokenConfiguration& token) {
    token.removeConfigurationData();
    token.replaceItems({});
}

}  // namespace keyloft::store
