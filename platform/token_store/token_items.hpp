#pragma once

#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "base/bytes.hpp"

namespace keyloft::platform::token_store {

// A published certificate.
struct TesseraTokenCertificateItem {
    Bytes objectID;
    std::optional<std::string> label;
    Bytes certificate;  // DER

    bool operator==(const TesseraTokenCertificateItem&) const = default;
};

// A published key, made from a certificate; the key fields are derived from the certificate's
// public key and are absent when the certificate cannot be read.
struct TesseraTokenKeyItem {
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

    bool operator==(const TesseraTokenKeyItem&) const = default;
};

using TesseraTokenItem = std::variant<TesseraTokenCertificateItem, TesseraTokenKeyItem>;
using TesseraTokenItems = std::vector<TesseraTokenItem>;
// An item as readers that follow the token hold it, shared from one reading to the next.
using SharedTokenItem = std::shared_ptr<const TesseraTokenItem>;

// Item constructors: nothing when the certificate cannot be parsed.
std::optional<TesseraTokenCertificateItem> makeCertificateItem(ByteView certificate,
                                                               ByteView objectID);
std::optional<TesseraTokenKeyItem> makeKeyItem(ByteView certificate, ByteView objectID);

// Fills the derived key fields of a key item from its certificate.
void deriveKeyFields(TesseraTokenKeyItem& item);

}  // namespace keyloft::platform::token_store
