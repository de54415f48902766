#include "pkcs11/slot.hpp"

#include <algorithm>
#include <mutex>

#include "base/error.hpp"
#include "encoding/hex.hpp"
#include "keys/key_access.hpp"
#include "platform/os/log.hpp"
#include "platform/os/settings_files.hpp"

namespace keyloft::pkcs11 {

void Slot::checkSlot(CK_SLOT_ID slot) {
    if (slot != slotID) throw CryptokiError(CKR_SLOT_ID_INVALID);
}

CK_SESSION_HANDLE Slot::openSession(CK_FLAGS flags) {
    auto slot = std::make_shared<SessionSlot>(flags);
    const std::unique_lock guard(sessionsLock_);
    const CK_SESSION_HANDLE handle = nextSession_++;
    sessions_.emplace(handle, std::move(slot));
    return handle;
}

LockedSession Slot::session(CK_SESSION_HANDLE handle) {
    std::shared_ptr<SessionSlot> slot;
    {
        const std::shared_lock guard(sessionsLock_);
        const auto found = sessions_.find(handle);
        if (found == sessions_.end()) throw CryptokiError(CKR_SESSION_HANDLE_INVALID);
        slot = found->second;
    }
    return LockedSession(std::move(slot));
}

std::size_t Slot::sessionCount() const {
    const std::shared_lock guard(sessionsLock_);
    return sessions_.size();
}

std::size_t Slot::readOnlySessionCount() const {
    const std::shared_lock guard(sessionsLock_);
    return static_cast<std::size_t>(std::count_if(
        sessions_.begin(), sessions_.end(),
        [](const auto& entry) { return (entry.second->flags & CKF_RW_SESSION) == 0; }));
}

void Slot::closeSession(CK_SESSION_HANDLE handle) {
    std::shared_ptr<SessionSlot> closed;  // freed outside the lock, with its kept keys
    {
        const std::unique_lock guard(sessionsLock_);
        const auto found = sessions_.find(handle);
        if (found == sessions_.end()) throw CryptokiError(CKR_SESSION_HANDLE_INVALID);
        closed = std::move(found->second);
        sessions_.erase(found);
        // Logging in is the application's state; it ends with its last session.
        if (sessions_.empty()) loggedIn_ = false;
    }
    objects_.dropSessionObjects(handle);
}

void Slot::closeAllSessions() {
    std::map<CK_SESSION_HANDLE, std::shared_ptr<SessionSlot>> closed;
    {
        const std::unique_lock guard(sessionsLock_);
        closed.swap(sessions_);
        loggedIn_ = false;
    }
    for (const auto& [handle, slot] : closed) objects_.dropSessionObjects(handle);
}

void Slot::logIn() {
    if (loggedIn_.exchange(true)) throw CryptokiError(CKR_USER_ALREADY_LOGGED_IN);
}

void Slot::logOut() {
    if (!loggedIn_.exchange(false)) throw CryptokiError(CKR_USER_NOT_LOGGED_IN);
}

void Slot::releaseKeys() {
    released_ = true;
    const std::shared_lock guard(sessionsLock_);
    for (const auto& [handle, slot] : sessions_) {
        const std::lock_guard sessionGuard(slot->lock);
        slot->session.keys.clear();
        slot->session.digesting.reset();
    }
}

void Slot::checkLive() const {
    if (released_) throw CryptokiError(CKR_FUNCTION_FAILED);
}

std::shared_ptr<const TokenObject> Slot::object(CK_OBJECT_HANDLE handle) {
    auto object = objects_.find(handle);
    if (!object) throw CryptokiError(CKR_OBJECT_HANDLE_INVALID);
    return object;
}

std::shared_ptr<const TokenObject> Slot::key(CK_OBJECT_HANDLE handle) {
    auto object = objects_.find(handle);
    if (!object || !object->key) throw CryptokiError(CKR_KEY_HANDLE_INVALID);
    return object;
}

namespace {

// A record swapped or copied by hand, or a certificate of another key under the identity, leaves
// the object naming one key and the card holding another: its signatures would not verify. The
// key object itself is sound and stays listed, so the failure is the token's: CKR_DEVICE_ERROR,
// which C_Sign, C_Decrypt and C_DeriveKey may all answer (CKR_KEY_HANDLE_INVALID may not be).
void requireObjectsKey(const platform::key_service::PrivateKey& reached, const KeyFacts& key) {
    if (reached.publicKeyAttributes().externalRepresentation == key.publicKeyData) return;
    platform::os::logError("PKCS#11: the key stored for " +
                           encoding::toHexString(key.publicKeyHash) +
                           " has another public key; it is not used");
    throw CryptokiError(CKR_DEVICE_ERROR);
}

}  // namespace

namespace {

// The settings' grace period, read at each protected use so that a change applies to running
// programs; a settings file that cannot be read gives none (every use asks), said once in the log.
std::chrono::seconds presenceGrace() {
    try {
        return platform::os::readSettings().presenceGrace;
    } catch (const PlatformError& error) {
        static std::once_flag logged;
        std::call_once(logged, [&] {
            platform::os::logError(std::string("PKCS#11: ") + error.what() +
                                   "; every use of a protected key asks for presence");
        });
        return std::chrono::seconds(0);
    }
}

}  // namespace

Slot::ReachedKey Slot::privateKey(Session& session, const KeyFacts& key) {
    checkLive();
    const auto stored = objects_.storedKey(key);
    if (!stored) throw CryptokiError(CKR_KEY_HANDLE_INVALID);
    auto reach = [&](std::shared_ptr<keys::AuthenticationContext> context) {
        std::shared_ptr<const platform::key_service::PrivateKey> reached =
            keys::privateKey(*stored, std::move(context));
        requireObjectsKey(*reached, key);
        return reached;
    };
    if (keys::protectionOf(*stored).biometryProtection == keys::BiometryProtection::on) {
        std::unique_lock presence(keyProcessorLock_);
        const auto grace = presenceGrace();
        auto& context = presence_[key.publicKeyHash];
        // A context from before a change of the settings keeps to the grace it was given.
        if (!context || !context->presenceConfirmed() ||
            context->grace() != keys::AuthenticationContext::Clock::duration(grace))
            context = std::make_shared<keys::AuthenticationContext>(grace);
        return {reach(context), std::move(presence)};
    }
    // Unwrapping costs more than the signature itself; a session that signs again reuses the
    // key, unless the tool replaced it since.
    const auto kept = session.keys.find(key.publicKeyHash);
    if (kept != session.keys.end() && kept->second.storage == *stored)
        return {kept->second.handle, {}};
    auto handle =
        withKeyProcessor([&] { return reach(std::make_shared<keys::AuthenticationContext>()); });
    session.keys.insert_or_assign(key.publicKeyHash, SessionKey{*stored, handle});
    return {std::move(handle), {}};
}

}  // namespace keyloft::pkcs11
