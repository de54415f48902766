#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "keys/stored_key_records.hpp"
#include "pkcs11/token_objects.hpp"
#include "platform/token_store/token_watcher.hpp"

namespace keyloft::pkcs11 {

// One reading of the token's objects, each with its handle; never changed once made, so readers
// use it without a lock.
class ObjectCatalog {
  public:
    using NewHandle = std::function<CK_OBJECT_HANDLE(const ObjectIdentity&)>;

    // An empty token.
    ObjectCatalog() = default;
    // The snapshot's objects. Those the previous catalog made of an item the snapshot still holds
    // (the same item object), under the same identity label and with the same custody of its
    // private key, are kept with their handles: a change costs what it touched. An object made
    // anew takes the handle of an object dropped here with the same class and id, so that a
    // relabelled object or a replaced certificate keeps its handle; any other gets a new handle.
    ObjectCatalog(const ObjectCatalog& previous, platform::token_store::TokenSnapshot snapshot,
                  const NewHandle& newHandle);

    // Handles of the objects matching the template, in token order.
    std::vector<CK_OBJECT_HANDLE> search(std::span<const CK_ATTRIBUTE> searchTemplate) const;
    // Nothing for a handle the catalog does not hold.
    std::shared_ptr<const TokenObject> find(CK_OBJECT_HANDLE handle) const;
    // The handle of the first object of the class and id, in token order.
    std::optional<CK_OBJECT_HANDLE> handleOf(const ObjectIdentity& identity) const;
    // The stored key under the public-key hash; null when there is none.
    const keys::KeyStorage* storedKey(const Bytes& publicKeyHash) const;

  private:
    // The objects of one item, in one allocation with their count of owners: walking the catalog
    // costs a memory fetch an item.
    using ObjectBlock = std::array<TokenObject, maxObjectsPerItem>;
    // What the catalog made of one item; the objects are shared by the catalogs that keep them.
    struct ItemObjects {
        // The identity's, pointing into the snapshot's items.
        const std::string* label;
        // Of the item's id, and of its key's public-key hash (else 0): they tell which items a
        // change touched without reading the items.
        std::size_t idHash;
        std::size_t keyHash;
        // The key item's key, read from its certificate once, when the item came.
        std::shared_ptr<const card::IdentityKey> key;
        PrivateKeyCustody custody;
        std::shared_ptr<const ObjectBlock> objects;
        std::array<CK_OBJECT_HANDLE, maxObjectsPerItem> handles{};  // of the objects, in order
        std::uint8_t count = 0;                                     // of the objects in use
    };
    // Where a handle's object is.
    struct Place {
        CK_OBJECT_HANDLE handle;
        std::uint32_t item;
        std::uint32_t object;
    };

    // For each item, its identity's label; worked out again only for identities whose items
    // changed (before: each item's position in the previous catalog, or none; stays: whether
    // each previous item is still there).
    std::vector<const std::string*> labelsAfter(const ObjectCatalog& previous,
                                                const std::vector<std::size_t>& before,
                                                const std::vector<bool>& stays) const;
    // Makes the objects of the items not kept; each takes a freed handle of its class and id,
    // else a new one.
    void makeObjects(const ObjectCatalog& previous, const std::vector<bool>& keptItems,
                     const std::vector<std::size_t>& remade, const NewHandle& newHandle);

    platform::token_store::TokenSnapshot snapshot_;
    std::shared_ptr<const keys::StoredKeyMap> storedKeys_ =
        std::make_shared<const keys::StoredKeyMap>();
    std::vector<ItemObjects> itemObjects_;  // parallel to the snapshot's items
    std::vector<Place> places_;             // sorted by handle
};

}  // namespace keyloft::pkcs11
