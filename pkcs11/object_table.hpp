#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "keys/stored_key_records.hpp"
#include "pkcs11/object_catalog.hpp"
#include "pkcs11/token_objects.hpp"
#include "platform/token_store/token_watcher.hpp"

namespace keyloft::pkcs11 {

// The objects of the token and those sessions made, by handle. A token object keeps its handle
// across re-reads for as long as it stays on the token; a removed one's handle is never reused.
// Every use of a handle first takes in what changed on the slot, so a handle of something the
// tool removed fails at once. Safe for use from several threads.
class ObjectTable {
  public:
    // How sure a caller is that the card may have changed: a sign of a change can come before the
    // change itself is visible, so after a write of its own the module asks the store itself.
    enum class Freshness { whenSignalled, afterOwnWrite };
    // Answers the token's state when it may have changed, nothing when it has not.
    using Source = std::function<std::optional<platform::token_store::TokenSnapshot>(Freshness)>;

    explicit ObjectTable(Source source) : source_(std::move(source)) {}

    // Nothing for an unknown or removed handle.
    std::shared_ptr<const TokenObject> find(CK_OBJECT_HANDLE handle);
    // Handles of every object matching the template, token objects first, in token order.
    std::vector<CK_OBJECT_HANDLE> search(std::span<const CK_ATTRIBUTE> searchTemplate);
    // The stored key a private key object uses; nothing when it has gone.
    std::optional<keys::KeyStorage> storedKey(const KeyFacts& key);
    // The handle of a token object the module has just written. When the token cannot be read
    // now, or no longer holds the object, the object gets a handle it takes once it is read: a
    // committed change is never answered as failed.
    CK_OBJECT_HANDLE handleOfWritten(const ObjectIdentity& identity);

    CK_OBJECT_HANDLE addSessionObject(CK_SESSION_HANDLE owner, TokenObject object);
    // False when the handle is no session object.
    bool destroySessionObject(CK_OBJECT_HANDLE handle);
    void dropSessionObjects(CK_SESSION_HANDLE owner);

  private:
    struct SessionObject {
        CK_SESSION_HANDLE owner;
        std::shared_ptr<const TokenObject> object;
    };

    // The catalog as the token is now.
    std::shared_ptr<const ObjectCatalog> current(Freshness freshness = Freshness::whenSignalled);

    std::mutex refreshLock_;  // the source and the making of catalogs
    Source source_;
    // Replaced, never changed, so readers use the one they took without a lock.
    std::shared_ptr<const ObjectCatalog> catalog_ = std::make_shared<const ObjectCatalog>();
    std::atomic<CK_OBJECT_HANDLE> nextHandle_ = 1;
    // Handles given out for objects written but not read yet, taken by them when they are read.
    std::map<ObjectIdentity, CK_OBJECT_HANDLE> reserved_;  // under refreshLock_
    std::mutex sessionObjectsLock_;
    std::map<CK_OBJECT_HANDLE, SessionObject> sessionObjects_;
};

}  // namespace keyloft::pkcs11
