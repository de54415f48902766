#pragma once

#include <optional>

#include "base/bytes.hpp"
#include "base/public_key_attributes.hpp"
#include "platform/token_store/token_items.hpp"

namespace keyloft::card {

// The public key of an identity, as its certificate carries it.
struct IdentityKey {
    PublicKeyAttributes publicKey;
    Bytes publicKeyHash;  // SHA-1 of the key's external representation: the identity's name
};

// Read from the certificate's structure, not by decoding the key: a long item list must not cost a
// key decoding per item. Nothing when the certificate cannot be read or carries a key of another
// kind than EC on P-256, P-384 or P-521, or RSA.
std::optional<IdentityKey> identityKeyOf(ByteView certificate);
inline std::optional<IdentityKey> identityKeyOf(const platform::token_store::KeyItem& item) {
    return identityKeyOf(item.certificate);
}

}  // namespace keyloft::card
