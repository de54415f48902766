#include "pkcs11/card.hpp"

#include <algorithm>

#include "keys/key_access.hpp"

namespace keyloft::pkcs11 {

void Card::checkSlot(CK_SLOT_ID slot) {
    if (slot != slotID) throw CryptokiError(CKR_SLOT_ID_INVALID);
}

CK_SESSION_HANDLE Card::openSession(CK_FLAGS flags) {
    const CK_SESSION_HANDLE handle = nextSession_++;
    sessions_.emplace(handle, Session{.flags = flags});
    return handle;
}

Session& Card::session(CK_SESSION_HANDLE handle) {
    const auto found = sessions_.find(handle);
    if (found == sessions_.end()) throw CryptokiError(CKR_SESSION_HANDLE_INVALID);
    return found->second;
}

std::size_t Card::readOnlySessionCount() const {
    return static_cast<std::size_t>(std::count_if(
        sessions_.begin(), sessions_.end(),
        [](const auto& entry) { return (entry.second.flags & CKF_RW_SESSION) == 0; }));
}

void Card::closeSession(CK_SESSION_HANDLE handle) {
    if (sessions_.erase(handle) == 0) throw CryptokiError(CKR_SESSION_HANDLE_INVALID);
    objects_.dropSessionObjects(handle);
    // Logging in is the application's state; it ends with its last session.
    if (sessions_.empty()) loggedIn_ = false;
}

void Card::closeAllSessions() {
    for (const auto& [handle, session] : sessions_) objects_.dropSessionObjects(handle);
    sessions_.clear();
    loggedIn_ = false;
}

const TokenObject& Card::key(CK_OBJECT_HANDLE handle) const {
    const TokenObject* object = objects_.find(handle);
    if (object == nullptr || !object->key) throw CryptokiError(CKR_KEY_HANDLE_INVALID);
    return *object;
}

std::shared_ptr<const platform::key_service::PrivateKey> Card::privateKey(
    Session& session, const KeyFacts& key) const {
    const keys::KeyStorage* stored = objects_.storedKey(key);
    if (stored == nullptr) throw CryptokiError(CKR_KEY_HANDLE_INVALID);
    auto reach = [&] {
        return std::shared_ptr<const platform::key_service::PrivateKey>(
            keys::privateKey(*stored, std::make_shared<keys::AuthenticationContext>()));
    };
    if (keys::protectionOf(*stored).biometryProtection == keys::BiometryProtection::on)
        return reach();
    // Unwrapping costs more than the signature itself; a session that signs again reuses the
    // key, unless the tool replaced it since.
    const auto kept = session.keys.find(key.publicKeyHash);
    if (kept != session.keys.end() && kept->second.storage == *stored) return kept->second.handle;
    auto handle = reach();
    session.keys.insert_or_assign(key.publicKeyHash, SessionKey{*stored, handle});
    return handle;
}

}  // namespace keyloft::pkcs11
