#pragma once

#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "base/bytes.hpp"

// The rows of the items table, as stored: the store keeps the certificate's bytes and reads nothing
// out of them.
namespace keyloft::platform::token_store {

// A published certificate.
struct CertificateItem {
    Bytes objectID;
    std::optional<std::string> label;
    Bytes certificate;  // DER

    bool operator==(const CertificateItem&) const = default;
};

// A published key, stored with the certificate that carries its public key.
struct KeyItem {
    Bytes objectID;
    std::optional<std::string> label;
    Bytes certificate;  // DER
    std::optional<bool> canSign;
    std::optional<bool> canDecrypt;
    std::optional<bool> canPerformKeyExchange;

    bool operator==(const KeyItem&) const = default;
};

using TokenItem = std::variant<CertificateItem, KeyItem>;
using TokenItems = std::vector<TokenItem>;
// An item as readers that follow the token hold it, shared from one reading to the next.
using SharedTokenItem = std::shared_ptr<const TokenItem>;

}  // namespace keyloft::platform::token_store
