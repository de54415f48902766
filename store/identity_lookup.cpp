#include "store/identity_lookup.hpp"

#include <algorithm>

#include "keyloft/error.hpp"
#include "keys/stored_key_codec.hpp"
#include "platform/certificate/certificate.hpp"

namespace keyloft::store {
namespace {

bool sameBytes(ByteView a, ByteView b) {
    return std::ranges::equal(a, b);
}

}  // namespace

Bytes certificatePublicKeyHash(ByteView certificate) {
    const auto parsed = platform::Certificate::parse(certificate);
    if (!parsed) throw KeyloftError::generic("Failed to parse certificate from data");
    auto hash = parsed->publicKeyHash();
    if (!hash) throw KeyloftError::generic("Failed to retrieve public key hash");
    return std::move(*hash);
}

bool itemMatchesHash(const platform::TesseraTokenItem& item, ByteView hash) {
    if (const auto* certificate = std::get_if<platform::TesseraTokenCertificateItem>(&item)) {
        return sameBytes(certificatePublicKeyHash(certificate->certificate), hash);
    }
    const auto& key = std::get<platform::TesseraTokenKeyItem>(item);
    return key.publicKeyHash && sameBytes(*key.publicKeyHash, hash);
}

void removeIdentityItems(const platform::TesseraTokenConfiguration& token, ByteView hash) {
    const auto items = token.items();
    platform::TesseraTokenItems kept;
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

void removeKeyRecord(const platform::TesseraTokenConfiguration& token, ByteView hash) {
    auto records = keys::decodeStoredKeys(token.configurationData());
    records.erase(Bytes(hash.begin(), hash.end()));
    token.replaceConfigurationData(keys::encodeStoredKeys(records));
}

}  // namespace keyloft::store
