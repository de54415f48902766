#pragma once

#include <functional>
#include <map>
#include <optional>
#include <span>
#include <vector>

#include "keys/stored_key_records.hpp"
#include "pkcs11/token_objects.hpp"
#include "platform/token_store/token_watcher.hpp"

namespace keyloft::pkcs11 {

// The objects of the token and those sessions made, by handle. A token object keeps its handle
// across re-reads for as long as it stays on the token; a removed one's handle is never reused.
class ObjectStore {
  public:
    // Answers the token's state when it may have changed, nothing when it has not.
    using Source = std::function<std::optional<platform::token_store::TesseraTokenSnapshot>()>;

    explicit ObjectStore(Source source) : source_(std::move(source)) {}

    // Takes in what the tool changed since the last refresh.
    void refresh();

    // Nothing for an unknown or removed handle.
    const TokenObject* find(CK_OBJECT_HANDLE handle) const;
    // Handles of every object matching the template, token objects first, in token order.
    std::vector<CK_OBJECT_HANDLE> search(std::span<const CK_ATTRIBUTE> searchTemplate) const;
    // The stored key a private key object uses; nothing when it has gone.
    const keys::KeyStorage* storedKey(const KeyFacts& key) const;

    CK_OBJECT_HANDLE addSessionObject(CK_SESSION_HANDLE owner, TokenObject object);
    // False when the handle is no session object.
    bool destroySessionObject(CK_OBJECT_HANDLE handle);
    void dropSessionObjects(CK_SESSION_HANDLE owner);

  private:
    struct SessionObject {
        CK_SESSION_HANDLE owner;
        TokenObject object;
    };

    Source source_;
    std::vector<TokenObject> tokenObjects_;
    std::vector<CK_OBJECT_HANDLE> tokenHandles_;  // parallel to tokenObjects_
    std::map<ObjectIdentity, CK_OBJECT_HANDLE> handleOf_;
    std::map<CK_OBJECT_HANDLE, std::size_t> indexOf_;
    std::map<CK_OBJECT_HANDLE, SessionObject> sessionObjects_;
    keys::StoredKeyMap storedKeys_;
    CK_OBJECT_HANDLE nextHandle_ = 1;
};

}  // namespace keyloft::pkcs11
