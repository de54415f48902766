#include "pkcs11/object_store.hpp"

#include "base/error.hpp"
#include "keys/stored_key_codec.hpp"

namespace keyloft::pkcs11 {
namespace {

// Damaged configuration data leaves the keys unusable, not the certificates unreadable.
keys::StoredKeyMap storedKeysOf(const std::optional<Bytes>& configurationData) {
    try {
        return keys::decodeStoredKeys(configurationData);
    } catch (const KeyloftError&) {
        return {};
    }
}

}  // namespace

std::shared_ptr<const ObjectStore::Catalog> ObjectStore::current() {
    // Asking the source costs a few microseconds when nothing changed; the lock is held only for
    // that, or for the rare re-read.
    const std::lock_guard guard(refreshLock_);
    auto snapshot = source_();
    if (!snapshot) return catalog_;
    auto next = std::make_shared<Catalog>();
    next->storedKeys = storedKeysOf(snapshot->configurationData);
    next->objects = tokenObjects(snapshot->items, next->storedKeys);
    for (std::size_t i = 0; i < next->objects.size(); ++i) {
        const auto& identity = next->objects[i].identity;
        const auto kept = catalog_->handleOf.find(identity);
        const CK_OBJECT_HANDLE handle =
            kept != catalog_->handleOf.end() ? kept->second : nextHandle_++;
        next->handleOf.emplace(identity, handle);
        next->handles.push_back(handle);
        next->indexOf.emplace(handle, i);
    }
    catalog_ = std::move(next);
    return catalog_;
}

std::shared_ptr<const TokenObject> ObjectStore::find(CK_OBJECT_HANDLE handle) {
    {
        const std::lock_guard guard(sessionObjectsLock_);
        if (const auto found = sessionObjects_.find(handle); found != sessionObjects_.end())
            return found->second.object;
    }
    auto catalog = current();
    const auto found = catalog->indexOf.find(handle);
    if (found == catalog->indexOf.end()) return nullptr;
    // Shares the catalog's ownership, so the object outlives a re-read that drops it.
    return {catalog, &catalog->objects[found->second]};
}

std::vector<CK_OBJECT_HANDLE> ObjectStore::search(std::span<const CK_ATTRIBUTE> searchTemplate) {
    const auto catalog = current();
    std::vector<CK_OBJECT_HANDLE> found;
    for (std::size_t i = 0; i < catalog->objects.size(); ++i) {
        if (catalog->objects[i].attributes.matches(searchTemplate))
            found.push_back(catalog->handles[i]);
    }
    const std::lock_guard guard(sessionObjectsLock_);
    for (const auto& [handle, entry] : sessionObjects_) {
        if (entry.object->attributes.matches(searchTemplate)) found.push_back(handle);
    }
    return found;
}

std::optional<keys::KeyStorage> ObjectStore::storedKey(const KeyFacts& key) {
    const auto catalog = current();
    const auto found = catalog->storedKeys.find(key.publicKeyHash);
    if (found == catalog->storedKeys.end()) return std::nullopt;
    return found->second;
}

std::optional<CK_OBJECT_HANDLE> ObjectStore::handleOf(const ObjectIdentity& identity) {
    const auto catalog = current();
    const auto found = catalog->handleOf.find(identity);
    if (found == catalog->handleOf.end()) return std::nullopt;
    return found->second;
}

CK_OBJECT_HANDLE ObjectStore::addSessionObject(CK_SESSION_HANDLE owner, TokenObject object) {
    const CK_OBJECT_HANDLE handle = nextHandle_++;
    auto shared = std::make_shared<const TokenObject>(std::move(object));
    const std::lock_guard guard(sessionObjectsLock_);
    sessionObjects_.emplace(handle, SessionObject{owner, std::move(shared)});
    return handle;
}

bool ObjectStore::destroySessionObject(CK_OBJECT_HANDLE handle) {
    std::shared_ptr<const TokenObject> destroyed;  // freed outside the lock
    const std::lock_guard guard(sessionObjectsLock_);
    const auto found = sessionObjects_.find(handle);
    if (found == sessionObjects_.end()) return false;
    destroyed = std::move(found->second.object);
    sessionObjects_.erase(found);
    return true;
}

void ObjectStore::dropSessionObjects(CK_SESSION_HANDLE owner) {
    const std::lock_guard guard(sessionObjectsLock_);
    std::erase_if(sessionObjects_, [&](const auto& entry) { return entry.second.owner == owner; });
}

}  // namespace keyloft::pkcs11
