#pragma once

#include <optional>
#include <string>

#include <string_view>

#include "card/identity_writes.hpp"
#include "keys/key_creation.hpp"
#include "keys/key_type.hpp"

namespace keyloft::card {

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
// A card holding TPM keys makes no others (see keys::holdsTpmKeys).
NewIdentity makeSelfSignedIdentity(KeyType type, const std::optional<std::string>& label,
                                   bool cardHoldsTpmKeys);

// A new key made an identity: a self-signed certificate over it with the subject the
// specification gives ("CN;E;OU;O;L;ST;C"), signed through its stored record, and its items
// under the label. Throws the tool's key and certificate errors.
NewIdentity certifyNewKey(keys::NewKey key, std::string_view subjectSpecification,
                          const std::string& label);

// Gives every item of the identity with the hash the label; false when the card holds none.
bool relabelIdentity(const Token& token, ByteView hash, const std::string& label);

}  // namespace keyloft::card
