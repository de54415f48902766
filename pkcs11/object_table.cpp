#include "pkcs11/object_table.hpp"

#include <string>

#include "platform/os/log.hpp"

namespace keyloft::pkcs11 {

std::shared_ptr<const ObjectCatalog> ObjectTable::current(Freshness freshness) {
    // Asking the source costs a few microseconds when nothing changed; the lock is held only for
    // that, or for the rare re-read.
    const std::lock_guard guard(refreshLock_);
    auto snapshot = source_(freshness);
    if (!snapshot) return catalog_;
    catalog_ = std::make_shared<const ObjectCatalog>(
        *catalog_, std::move(*snapshot), [this](const ObjectIdentity& identity) {
            const auto reserved = reserved_.extract(identity);
            return reserved ? reserved.mapped() : nextHandle_++;
        });
    return catalog_;
}

std::shared_ptr<const TokenObject> ObjectTable::find(CK_OBJECT_HANDLE handle) {
    {
        const std::lock_guard guard(sessionObjectsLock_);
        if (const auto found = sessionObjects_.find(handle); found != sessionObjects_.end())
            return found->second.object;
    }
    return current()->find(handle);
}

std::vector<CK_OBJECT_HANDLE> ObjectTable::search(std::span<const CK_ATTRIBUTE> searchTemplate) {
    auto found = current()->search(searchTemplate);
    const std::lock_guard guard(sessionObjectsLock_);
    for (const auto& [handle, entry] : sessionObjects_) {
        if (entry.object->attributes.matches(searchTemplate)) found.push_back(handle);
    }
    return found;
}

std::optional<keys::KeyStorage> ObjectTable::storedKey(const KeyFacts& key) {
    // The catalog is held while its record is copied: another thread may replace it meanwhile.
    const auto catalog = current();
    const auto* stored = catalog->storedKey(key.publicKeyHash);
    return stored != nullptr ? std::optional(*stored) : std::nullopt;
}

CK_OBJECT_HANDLE ObjectTable::handleOfWritten(const ObjectIdentity& identity) {
    try {
        current(Freshness::afterOwnWrite);
    } catch (const std::exception& error) {
        // The change is stored; the token is read again at the next use of a handle.
        platform::os::logError(std::string("PKCS#11: the card cannot be read after a change: ") +
                               error.what());
    }
    const std::lock_guard guard(refreshLock_);
    if (const auto handle = catalog_->handleOf(identity)) return *handle;
    const auto [reserved, added] = reserved_.try_emplace(identity);
    if (added) reserved->second = nextHandle_++;
    return reserved->second;
}

CK_OBJECT_HANDLE ObjectTable::addSessionObject(CK_SESSION_HANDLE owner, TokenObject object) {
    const CK_OBJECT_HANDLE handle = nextHandle_++;
    auto shared = std::make_shared<const TokenObject>(std::move(object));
    const std::lock_guard guard(sessionObjectsLock_);
    sessionObjects_.emplace(handle, SessionObject{owner, std::move(shared)});
    return handle;
}

bool ObjectTable::destroySessionObject(CK_OBJECT_HANDLE handle) {
    std::shared_ptr<const TokenObject> destroyed;  // freed outside the lock
    const std::lock_guard guard(sessionObjectsLock_);
    const auto found = sessionObjects_.find(handle);
    if (found == sessionObjects_.end()) return false;
    destroyed = std::move(found->second.object);
    sessionObjects_.erase(found);
    return true;
}

void ObjectTable::dropSessionObjects(CK_SESSION_HANDLE owner) {
    const std::lock_guard guard(sessionObjectsLock_);
    std::erase_if(sessionObjects_, [&](const auto& entry) { return entry.second.owner == owner; });
}

}  // namespace keyloft::pkcs11
