#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "keys/stored_key_records.hpp"
#include "pkcs11/token_objects.hpp"
#include "platform/token_store/token_watcher.hpp"

namespace keyloft::pkcs11 {

// One reading of the token's objects, each with its handle; never changed once made, so readers
// use it without a lock.
class ObjectCatalog {
  public:
    using NewHandle = std::function<CK_OBJECT_HANDLE()>;

    // An empty token.
    ObjectCatalog() = default;
    // The snapshot's objects. Those the previous catalog made of an item the snapshot still holds
    // (the same item object), under the same identity label and with the same custody of its
    // private key, are kept with their handles: a change costs what it touched. An object made
    // anew takes the handle of an object dropped here with the same class and id, so that a
    // relabelled object or a replaced certificate keeps its handle; any other gets a new handle.
    ObjectCatalog(const ObjectCatalog& previous,
                  platform::token_store::TesseraTokenSnapshot snapshot, const NewHandle& newHandle);

    // In token order, parallel to handles().
    std::span<const std::shared_ptr<const TokenObject>> objects() const { return objects_; }
    std::span<const CK_OBJECT_HANDLE> handles() const { return handles_; }

    // Nothing for a handle the catalog does not hold.
    std::shared_ptr<const TokenObject> find(CK_OBJECT_HANDLE handle) const;
    // The handle of the first object of the class and id, in token order.
    std::optional<CK_OBJECT_HANDLE> handleOf(const ObjectIdentity& identity) const;
    // The stored key under the public-key hash; null when there is none.
    const keys::KeyStorage* storedKey(const Bytes& publicKeyHash) const;

  private:
    // What the catalog made of one item.
    struct ItemObjects {
        const std::string* label;  // the identity's, pointing into the snapshot's items
        PrivateKeyCustody custody;
        std::size_t first;  // into objects_
        std::size_t count;
    };

    // Takes over the previous catalog's objects of an item, with their handles.
    void keep(const ObjectCatalog& previous, const ItemObjects& objects);
    // Gives each object made anew a freed handle of its class and id, else a new one.
    void giveHandles(const ObjectCatalog& previous, const std::vector<bool>& keptItems,
                     const std::vector<std::size_t>& made, const NewHandle& newHandle);

    platform::token_store::TesseraTokenSnapshot snapshot_;
    std::shared_ptr<const keys::StoredKeyMap> storedKeys_ =
        std::make_shared<const keys::StoredKeyMap>();
    std::vector<ItemObjects> itemObjects_;  // parallel to the snapshot's items
    std::vector<std::shared_ptr<const TokenObject>> objects_;
    std::vector<CK_OBJECT_HANDLE> handles_;
    std::vector<std::pair<CK_OBJECT_HANDLE, std::size_t>> byHandle_;  // into objects_, sorted
};

}  // namespace keyloft::pkcs11
