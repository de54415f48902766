#include "card/identity_writes.hpp"

#include <algorithm>

#include "base/error.hpp"
#include "base/public_key_attributes.hpp"
#include "card/identity_key.hpp"
#include "card/identity_lookup.hpp"
#include "keys/stored_key_codec.hpp"
#include "x509/certificate_reader.hpp"

namespace keyloft::card {

std::optional<platform::token_store::CertificateItem> makeCertificateItem(ByteView certificate,
                                                                          ByteView objectID) {
    if (!x509::readCertificate(certificate)) return std::nullopt;
    return platform::token_store::CertificateItem{Bytes(objectID.begin(), objectID.end()),
                                                  std::nullopt,
                                                  Bytes(certificate.begin(), certificate.end())};
}

std::optional<platform::token_store::KeyItem> makeKeyItem(ByteView certificate, ByteView objectID) {
    if (!identityKeyOf(certificate)) return std::nullopt;
    return platform::token_store::KeyItem{
        .objectID = Bytes(objectID.begin(), objectID.end()),
        .certificate = Bytes(certificate.begin(), certificate.end())};
}

IdentityItems makeIdentityItems(ByteView certificate, ByteView hash, const std::string& label) {
    const auto read = x509::readCertificate(certificate);
    if (!read) throw KeyloftError::generic("Failed to create Tessera certificate");
    return makeIdentityItems(*read, certificate, hash, label);
}

IdentityItems makeIdentityItems(const x509::CertificateView& read, ByteView certificate,
                                ByteView hash, const std::string& label) {
    const auto publicKey = read.publicKey();
    if (!publicKey) throw KeyloftError::generic("Failed to create Tessera key");
    const Bytes objectID(hash.begin(), hash.end());
    const Bytes der(certificate.begin(), certificate.end());
    platform::token_store::KeyItem keyItem{
        .objectID = objectID, .label = label, .certificate = der, .canSign = true};
    if (publicKey->keyType == keyTypeRSA) {
        keyItem.canDecrypt = true;
        keyItem.canPerformKeyExchange = false;
    } else if (publicKey->keyType == keyTypeEC) {
        keyItem.canDecrypt = false;
        keyItem.canPerformKeyExchange = true;
    }
    return {{.objectID = objectID, .label = label, .certificate = der}, std::move(keyItem)};
}

IdentityAdditions::IdentityAdditions(const Token& token)
    : token_(token), data_(token.configurationData()), records_(keys::decodeStoredKeys(data_)) {}

IdentityAdditions::IdentityAdditions(const Token& token, const std::optional<Bytes>& earlierData)
    : token_(token), data_(token.configurationData()) {
    // Data changed meanwhile is checked before anything is added to it.
    if (data_ != earlierData) records_ = keys::decodeStoredKeys(data_);
}

const keys::StoredKeyMap& IdentityAdditions::records() const {
    if (!records_) {
        records_ = keys::decodeStoredKeys(data_);
        for (const auto& [hash, storage] : added_) (*records_)[hash] = storage;
    }
    return *records_;
}

void IdentityAdditions::add(const Bytes& hash, keys::KeyStorage storage, IdentityItems items) {
    if (records_) (*records_)[hash] = storage;
    added_[hash] = std::move(storage);
    items_.emplace_back(std::move(items.certificate));
    items_.emplace_back(std::move(items.key));
}

void IdentityAdditions::write() {
    if (items_.empty()) return;
    const auto patches = data_ ? keys::appendStoredKeys(*data_, added_) : std::nullopt;
    if (patches) {
        token_.patchConfigurationData(*patches);
        applyPatches(*data_, *patches);
    } else {
        data_ = keys::encodeStoredKeys(records());
        token_.replaceConfigurationData(*data_);
    }
    token_.appendItems(items_);
    added_.clear();
    items_.clear();
}

void removeIdentityItems(const Token& token, ByteView hash) {
    const auto items = token.items();
    std::vector<std::size_t> matching;
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (itemMatchesHash(items[i], hash)) matching.push_back(i);
    }
    token.removeItemsAt(std::move(matching));
}

void removeKeyRecord(const Token& token, ByteView hash) {
    auto records = keys::decodeStoredKeys(token.configurationData());
    records.erase(Bytes(hash.begin(), hash.end()));
    token.replaceConfigurationData(keys::encodeStoredKeys(records));
}

bool replaceCertificateItem(const Token& token, ByteView certificate, ByteView hash) {
    const auto items = token.items();
    const auto old = findCertificateItem(items, hash);
    if (old == items.end()) return false;
    auto item = makeCertificateItem(certificate, hash);
    if (!item) throw KeyloftError::generic("Failed to create token certificate");
    token.removeItemsAt({static_cast<std::size_t>(old - items.begin())});
    token.appendItems({std::move(*item)});
    return true;
}

void removeAllIdentities(const Token& token) {
    token.removeConfigurationData();
    token.replaceItems({});
}

}  // namespace keyloft::card
