#pragma once

#include <compare>
#include <optional>
#include <vector>

#include "base/bytes.hpp"
#include "keys/stored_key_records.hpp"
#include "pkcs11/attribute_set.hpp"
#include "platform/token_store/token_items.hpp"

namespace keyloft::pkcs11 {

// Names an object across re-reads of the item list, so that its handle survives them.
struct ObjectIdentity {
    CK_OBJECT_CLASS objectClass = 0;
    Bytes objectID;
    std::size_t occurrence = 0;  // among objects of the same class and id, in item order

    auto operator<=>(const ObjectIdentity&) const = default;
};

// What an operation needs to know of a key object.
struct KeyFacts {
    CK_KEY_TYPE keyType;
    CK_ULONG sizeInBits;
    Bytes publicKeyHash;  // names the stored key of a private key
    Bytes publicKeyData;  // EC point or DER RSAPublicKey, for verification
};

struct TokenObject {
    ObjectIdentity identity;
    AttributeSet attributes;
    std::optional<KeyFacts> key;  // key objects

    // A CKA_SIGN-style boolean attribute; false when absent.
    bool allows(CK_ATTRIBUTE_TYPE usage) const;
};

// The objects applications see for an item list: a certificate per certificate item; a public
// and a private key per key item (the private key only when its stored key exists).
std::vector<TokenObject> tokenObjects(const platform::token_store::TesseraTokenItems& items,
                                      const keys::StoredKeyMap& storedKeys);

}  // namespace keyloft::pkcs11
