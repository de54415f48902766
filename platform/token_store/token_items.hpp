#pragma once

#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "base/bytes.hpp"
#include "base/public_key_attributes.hpp"

namespace keyloft::platform::token_store {

// A published certificate.
struct CertificateItem {
    Bytes objectID;
    std::optional<std::string> label;
    Bytes certificate;  // DER

    bool operator==(const CertificateItem&) const = default;
};

// A published key, made from a certificate; the key fields are derived from the certificate's
// public key and are absent when the certificate cannot be read.
struct KeyItem {
    Bytes objectID;
    std::optional<std::string> label;
    Bytes certificate;  // DER
    std::optional<bool> canSign;
    std::optional<bool> canDecrypt;
    std::optional<bool> canPerformKeyExchange;

    std::string keyType;  // keyTypeEC, keyTypeRSA, or empty when unknown
    int keySizeInBits = 0;
    std::optional<Bytes> publicKeyData;  // EC point or DER RSAPublicKey
    std::optional<Bytes> publicKeyHash;  // SHA-1 of publicKeyData

    bool operator==(const KeyItem&) const = default;
};

using TokenItem = std::variant<CertificateItem, KeyItem>;
using TokenItems = std::vector<TokenItem>;
// An item as readers that follow the token hold it, shared from one reading to the next.
using SharedTokenItem = std::shared_ptr<const TokenItem>;

// Item constructors: nothing when the certificate cannot be parsed.
std::optional<CertificateItem> makeCertificateItem(ByteView certificate, ByteView objectID);
std::optional<KeyItem> makeKeyItem(ByteView certificate, ByteView objectID);

// Fills the derived key fields of a key item from its certificate.
void deriveKeyFields(KeyItem& item);
// The same from its certificate's public key, read already; nothing leaves them absent.
void deriveKeyFields(KeyItem& item, std::optional<PublicKeyAttributes> publicKey);

}  // namespace keyloft::platform::token_store
