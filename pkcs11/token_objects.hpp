#pragma once

#include <compare>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/bytes.hpp"
#include "card/identity_key.hpp"
#include "keys/stored_key_records.hpp"
#include "pkcs11/attribute_set.hpp"
#include "platform/token_store/token_items.hpp"

namespace keyloft::pkcs11 {

// The class and id of an object; objects of one class may share an id.
struct ObjectIdentity {
    CK_OBJECT_CLASS objectClass = 0;
    Bytes objectID;

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

// Whether a key item's private key object exists, what it promises of the key, and where the key
// (or the key it is wrapped under) lives.
struct PrivateKeyCustody {
    enum class Kind : std::uint8_t { none, exportable, bound };
    Kind kind = Kind::none;
    bool inTpm = false;

    bool operator==(const PrivateKeyCustody&) const = default;
};

// The private key's attribute naming the key processor that holds it, or the key it is wrapped
// under: "tpm" or "soft".
inline constexpr CK_ATTRIBUTE_TYPE attributeKeyProcessor = CKA_VENDOR_DEFINED | 0x4B4C0001;

// A key item's key as its certificate gives it, worked out once for the item's objects and its
// custody; null for a certificate item and for a key item whose certificate gives none.
std::shared_ptr<const card::IdentityKey> identityKeyOf(
    const platform::token_store::TokenItem& item);

// none without a key (see identityKeyOf) and for a key whose stored key is missing.
PrivateKeyCustody custodyOf(const card::IdentityKey* key, const keys::StoredKeyMap& storedKeys);

// The objects applications see for one item: a certificate for a certificate item; a public and
// a private key for a key item with a key (the private key only with a custody), so never more
// than maxObjectsPerItem. The key is the item's (see identityKeyOf); the label is the identity's
// (see identityLabels); null for none.
inline constexpr std::size_t maxObjectsPerItem = 2;
std::vector<TokenObject> itemObjects(const platform::token_store::TokenItem& item,
                                     const card::IdentityKey* key, const std::string* label,
                                     PrivateKeyCustody custody);

// One label per identity (the items sharing an object id), so that applications that pair a
// certificate with its key by label find both: for each item, its identity's label, pointing into
// the items, or null. The items given must include every item of their identities.
std::vector<const std::string*> identityLabels(
    std::span<const platform::token_store::TokenItem* const> items);

ByteView objectIDOf(const platform::token_store::TokenItem& item);
// Orders ids byte by byte, for sorting views of them.
std::strong_ordering compareIDs(ByteView a, ByteView b);

}  // namespace keyloft::pkcs11
