#pragma once

#include <compare>
#include <map>
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
};

struct TokenObject {
    ObjectIdentity identity;
    AttributeSet attributes;
    std::optional<KeyFacts> key;  // key objects

    // A CKA_SIGN-style boolean attribute; false when absent.
    bool allows(CK_ATTRIBUTE_TYPE usage) const;
};

// The objects made for the items of the last reading, so that the next one builds only those of
// items that changed (a card of thousands changes by one identity at a time).
class TokenObjectCache {
  public:
    struct Entry {
        platform::token_store::TesseraTokenItem item;
        int storedKey = 0;  // what the item's stored key was: none, wrapped or bound
        std::vector<TokenObject> objects;
    };
    // By object id, then in item order.
    std::map<Bytes, std::vector<Entry>> entries;
};

// The objects applications see for an item list: a certificate per certificate item; a public
// and a private key per key item (the private key only when its stored key exists). The cache is
// used and replaced by what this list made.
std::vector<TokenObject> tokenObjects(const platform::token_store::TesseraTokenItems& items,
                                      const keys::StoredKeyMap& storedKeys,
                                      TokenObjectCache& cache);

}  // namespace keyloft::pkcs11
