#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "keys/stored_key_records.hpp"

#include "pkcs11/operations.hpp"

namespace keyloft::pkcs11 {

// A private key the session reached, kept while its stored key stays the same.
struct SessionKey {
    keys::KeyStorage storage;
    std::shared_ptr<const platform::key_service::PrivateKey> handle;
};

// One application session and the operations it has started.
struct Session {
    CK_FLAGS flags = CKF_SERIAL_SESSION;
    std::optional<std::vector<CK_OBJECT_HANDLE>> searchResults;
    std::size_t searchPosition = 0;
    std::optional<SignOperation> signing;
    std::optional<VerifyOperation> verifying;
    std::optional<DecryptOperation> decrypting;
    std::optional<EncryptOperation> encrypting;
    std::optional<DigestOperation> digesting;
    std::map<Bytes, SessionKey> keys;  // by public-key hash
};

// A session and the lock its calls hold: each session is worked on by one call at a time, and
// calls on different sessions never wait for each other.
struct SessionSlot {
    explicit SessionSlot(CK_FLAGS sessionFlags) : flags(sessionFlags) { session.flags = flags; }
    const CK_FLAGS flags;
    std::mutex lock;
    Session session;
};

// A session held for the length of one call.
class LockedSession {
  public:
    explicit LockedSession(std::shared_ptr<SessionSlot> slot)
        : slot_(std::move(slot)), guard_(slot_->lock) {}

    Session& operator*() const { return slot_->session; }
    Session* operator->() const { return &slot_->session; }

  private:
    std::shared_ptr<SessionSlot> slot_;
    std::unique_lock<std::mutex> guard_;
};

}  // namespace keyloft::pkcs11
