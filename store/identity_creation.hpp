#pragma once

#include <optional>
#include <string>

#include "keys/key_type.hpp"
#include "store/identity_writes.hpp"

namespace keyloft::store {

// A new identity as create-identity makes it: a key of the type (no biometry), a self-signed
// certificate over it named after the label (the hash in hex when none is given), its items and
// its stored-key record. Nothing is
// written; add it to the card with IdentityAdditions. Throws the tool's key and certificate
// errors.
struct NewIdentity {
    Bytes hash;
    keys::KeyStorage storage;
    IdentityItems items;
};
// The card's records decide the key processor (a card holding TPM keys makes no others).
NewIdentity makeSelfSignedIdentity(KeyType type, const std::optional<std::string>& label,
                                   const keys::StoredKeyMap& card);

// Gives every item of the identity with the hash the label; false when the card holds none.
bool relabelIdentity(const TesseraTokenConfiguration& token, ByteView hash,
                     const std::string& label);

}  // namespace keyloft::store
