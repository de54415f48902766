#pragma once

#include <atomic>
#include <map>
#include <shared_mutex>

#include "keys/key_access.hpp"
#include "pkcs11/object_table.hpp"
#include "pkcs11/session.hpp"
#include "platform/key_service/private_key.hpp"

namespace keyloft::pkcs11 {

// The module's one slot and its token, the user's slot, between C_Initialize and C_Finalize.
// Every member may be called from several threads at once.
class Slot {
  public:
    static constexpr CK_SLOT_ID slotID = 0;

    explicit Slot(ObjectTable::Source source) : objects_(std::move(source)) {}

    ObjectTable& objects() { return objects_; }

    // Throws CKR_SLOT_ID_INVALID for any other slot.
    static void checkSlot(CK_SLOT_ID slot);

    CK_SESSION_HANDLE openSession(CK_FLAGS flags);
    // The session, held until the result is dropped; throws CKR_SESSION_HANDLE_INVALID for an
    // unknown handle. A session closed meanwhile stays whole for the call that holds it.
    LockedSession session(CK_SESSION_HANDLE handle);
    void closeSession(CK_SESSION_HANDLE handle);
    void closeAllSessions();
    std::size_t sessionCount() const;
    std::size_t readOnlySessionCount() const;

    bool loggedIn() const { return loggedIn_; }
    // Throws CKR_USER_ALREADY_LOGGED_IN / CKR_USER_NOT_LOGGED_IN when nothing changes.
    void logIn();
    void logOut();

    // Frees every key and digest state the sessions hold, for the end of the process: from then
    // on sessions can still be closed, but nothing that needs the crypto library works.
    void releaseKeys();
    // Throws CKR_FUNCTION_FAILED once the keys were released.
    void checkLive() const;

    // An object as it is on the token now; throws CKR_OBJECT_HANDLE_INVALID once it has gone.
    std::shared_ptr<const TokenObject> object(CK_OBJECT_HANDLE handle);
    // A key object as it is on the token now; throws CKR_KEY_HANDLE_INVALID.
    std::shared_ptr<const TokenObject> key(CK_OBJECT_HANDLE handle);
    // A private key ready for one operation. A biometry-protected key holds the key processor
    // for it, so that presence is asked one operation at a time.
    struct ReachedKey {
        std::shared_ptr<const platform::key_service::PrivateKey> key;
        std::unique_lock<std::mutex> presence;
        const platform::key_service::PrivateKey& operator*() const { return *key; }
    };
    // The private key behind a key object. A key without biometry protection is reached once per
    // session and kept with it; a protected one is reached for each operation, under the key's
    // authentication context of this process: one confirmation of presence covers the program's
    // further uses of the key for the settings' grace period (a browser signs once per TLS
    // handshake, and one page may take several). Throws CKR_KEY_HANDLE_INVALID when its stored key
    // has gone from the token.
    ReachedKey privateKey(Session& session, const KeyFacts& key);

    // Runs work that uses the key processor (reaching or making keys) alone: the processor
    // keeps state of its own that is not made for several threads. Signing with a reached key
    // needs no such turn.
    template <class Work>
    auto withKeyProcessor(Work&& work) {
        const std::lock_guard guard(keyProcessorLock_);
        return work();
    }

  private:
    ObjectTable objects_;
    mutable std::shared_mutex sessionsLock_;
    std::map<CK_SESSION_HANDLE, std::shared_ptr<SessionSlot>> sessions_;
    CK_SESSION_HANDLE nextSession_ = 1;
    std::atomic<bool> loggedIn_ = false;
    std::atomic<bool> released_ = false;
    std::mutex keyProcessorLock_;
    // By public-key hash, under keyProcessorLock_; a context outlives its grace only until the
    // key is next used.
    std::map<Bytes, std::shared_ptr<keys::AuthenticationContext>> presence_;
};

}  // namespace keyloft::pkcs11
