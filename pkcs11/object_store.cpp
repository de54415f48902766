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

void ObjectStore::refresh() {
    auto snapshot = source_();
    if (!snapshot) return;
    storedKeys_ = storedKeysOf(snapshot->configurationData);
    tokenObjects_ = tokenObjects(snapshot->items, storedKeys_);

    std::map<ObjectIdentity, CK_OBJECT_HANDLE> handles;
    tokenHandles_.clear();
    indexOf_.clear();
    for (std::size_t i = 0; i < tokenObjects_.size(); ++i) {
        const auto& identity = tokenObjects_[i].identity;
        const auto kept = handleOf_.find(identity);
        const CK_OBJECT_HANDLE handle = kept != handleOf_.end() ? kept->second : nextHandle_++;
        handles.emplace(identity, handle);
        tokenHandles_.push_back(handle);
        indexOf_.emplace(handle, i);
    }
    handleOf_ = std::move(handles);
}

const TokenObject* ObjectStore::find(CK_OBJECT_HANDLE handle) const {
    if (const auto found = indexOf_.find(handle); found != indexOf_.end())
        return &tokenObjects_[found->second];
    if (const auto found = sessionObjects_.find(handle); found != sessionObjects_.end())
        return &found->second.object;
    return nullptr;
}

std::vector<CK_OBJECT_HANDLE> ObjectStore::search(
    std::span<const CK_ATTRIBUTE> searchTemplate) const {
    std::vector<CK_OBJECT_HANDLE> found;
    for (std::size_t i = 0; i < tokenObjects_.size(); ++i) {
        if (tokenObjects_[i].attributes.matches(searchTemplate)) found.push_back(tokenHandles_[i]);
    }
    for (const auto& [handle, entry] : sessionObjects_) {
        if (entry.object.attributes.matches(searchTemplate)) found.push_back(handle);
    }
    return found;
}

const keys::KeyStorage* ObjectStore::storedKey(const KeyFacts& key) const {
    const auto found = storedKeys_.find(key.publicKeyHash);
    return found != storedKeys_.end() ? &found->second : nullptr;
}

CK_OBJECT_HANDLE ObjectStore::addSessionObject(CK_SESSION_HANDLE owner, TokenObject object) {
    const CK_OBJECT_HANDLE handle = nextHandle_++;
    sessionObjects_.emplace(handle, SessionObject{owner, std::move(object)});
    return handle;
}

bool ObjectStore::destroySessionObject(CK_OBJECT_HANDLE handle) {
    return sessionObjects_.erase(handle) == 1;
}

void ObjectStore::dropSessionObjects(CK_SESSION_HANDLE owner) {
    std::erase_if(sessionObjects_, [&](const auto& entry) { return entry.second.owner == owner; });
}

}  // namespace keyloft::pkcs11
