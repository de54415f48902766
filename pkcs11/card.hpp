#pragma once

#include <map>

#include "pkcs11/object_store.hpp"
#include "pkcs11/session.hpp"
#include "platform/key_service/private_key.hpp"

namespace keyloft::pkcs11 {

// The module's one slot and its token, the user's card, between C_Initialize and C_Finalize.
class Card {
  public:
    static constexpr CK_SLOT_ID slotID = 0;

    explicit Card(ObjectStore::Source source) : objects_(std::move(source)) {}

    ObjectStore& objects() { return objects_; }

    // Throws CKR_SLOT_ID_INVALID for any other slot.
    static void checkSlot(CK_SLOT_ID slot);

    CK_SESSION_HANDLE openSession(CK_FLAGS flags);
    // Throws CKR_SESSION_HANDLE_INVALID for an unknown handle.
    Session& session(CK_SESSION_HANDLE handle);
    void closeSession(CK_SESSION_HANDLE handle);
    void closeAllSessions();
    std::size_t sessionCount() const { return sessions_.size(); }
    std::size_t readOnlySessionCount() const;

    bool loggedIn() const { return loggedIn_; }
    void setLoggedIn(bool loggedIn) { loggedIn_ = loggedIn; }

    // A key object of the session's reach; throws CKR_KEY_HANDLE_INVALID.
    const TokenObject& key(CK_OBJECT_HANDLE handle) const;
    // The private key behind a key object. A key without biometry protection is reached once per
    // session and kept with it; a protected one is reached for each operation with a fresh
    // authentication context, so that it asks for presence every time. Throws
    // CKR_KEY_HANDLE_INVALID when its stored key has gone.
    std::shared_ptr<const platform::key_service::PrivateKey> privateKey(Session& session,
                                                                        const KeyFacts& key) const;

  private:
    ObjectStore objects_;
    std::map<CK_SESSION_HANDLE, Session> sessions_;
    CK_SESSION_HANDLE nextSession_ = 1;
    bool loggedIn_ = false;
};

}  // namespace keyloft::pkcs11
