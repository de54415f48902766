#include "pkcs11/object_catalog.hpp"

#include <algorithm>

#include "base/error.hpp"
#include "keys/stored_key_codec.hpp"

namespace keyloft::pkcs11 {
namespace {

using platform::token_store::SharedTokenItem;
using platform::token_store::TesseraTokenItem;

// Damaged configuration data leaves the keys unusable, not the certificates unreadable.
keys::StoredKeyMap storedKeysOf(const std::shared_ptr<const Bytes>& configurationData) {
    try {
        return keys::decodeStoredKeys(configurationData ? std::optional(*configurationData)
                                                        : std::nullopt);
    } catch (const KeyloftError&) {
        return {};
    }
}

bool sameLabel(const std::string* a, const std::string* b) {
    return a == b || (a != nullptr && b != nullptr && *a == *b);
}

// The positions of the items, looked up by the items' addresses.
class ItemPositions {
  public:
    explicit ItemPositions(std::span<const SharedTokenItem> items) {
        positions_.reserve(items.size());
        for (std::size_t i = 0; i < items.size(); ++i) positions_.emplace_back(items[i].get(), i);
        std::ranges::sort(positions_);
    }

    std::optional<std::size_t> find(const TesseraTokenItem* item) const {
        const auto found = std::ranges::lower_bound(positions_, item, {}, &Entry::first);
        if (found == positions_.end() || found->first != item) return std::nullopt;
        return found->second;
    }

  private:
    using Entry = std::pair<const TesseraTokenItem*, std::size_t>;
    std::vector<Entry> positions_;
};

// Class and id, the names under which a handle passes from a dropped object to a new one.
struct ObjectKey {
    CK_OBJECT_CLASS objectClass;
    ByteView objectID;

    std::strong_ordering operator<=>(const ObjectKey& other) const {
        if (const auto order = objectClass <=> other.objectClass; order != 0) return order;
        return std::lexicographical_compare_three_way(objectID.begin(), objectID.end(),
                                                      other.objectID.begin(), other.objectID.end());
    }
    bool operator==(const ObjectKey& other) const { return (*this <=> other) == 0; }
};

ObjectKey keyOf(const TokenObject& object) {
    return {object.identity.objectClass, object.identity.objectID};
}

// The handle of an object the new catalog did not keep.
struct FreedHandle {
    ObjectKey key;
    CK_OBJECT_HANDLE handle;
    bool taken = false;
};

}  // namespace

ObjectCatalog::ObjectCatalog(const ObjectCatalog& previous,
                             platform::token_store::TesseraTokenSnapshot snapshot,
                             const NewHandle& newHandle)
    : snapshot_(std::move(snapshot)) {
    const bool sameKeys = snapshot_.configurationData == previous.snapshot_.configurationData;
    if (sameKeys) {
        storedKeys_ = previous.storedKeys_;
    } else {
        storedKeys_ =
            std::make_shared<const keys::StoredKeyMap>(storedKeysOf(snapshot_.configurationData));
    }
    const auto labels = identityLabels(snapshot_.items);
    const ItemPositions previousPositions(previous.snapshot_.items);
    std::vector<bool> keptItems(previous.itemObjects_.size(), false);
    std::vector<std::size_t> made;  // objects waiting for a handle
    itemObjects_.reserve(snapshot_.items.size());
    objects_.reserve(previous.objects_.size());
    handles_.reserve(previous.objects_.size());

    for (std::size_t i = 0; i < snapshot_.items.size(); ++i) {
        const auto& item = *snapshot_.items[i];
        auto before = previousPositions.find(&item);
        if (before && keptItems[*before]) before.reset();
        const PrivateKeyCustody custody = before && sameKeys
                                              ? previous.itemObjects_[*before].custody
                                              : custodyOf(item, *storedKeys_);
        ItemObjects entry{labels[i], custody, objects_.size(), 0};
        const ItemObjects* old = before ? &previous.itemObjects_[*before] : nullptr;
        if (old != nullptr && old->custody == custody && sameLabel(old->label, labels[i])) {
            keptItems[*before] = true;
            keep(previous, *old);
        } else {
            for (auto& object : itemObjects(item, labels[i], custody)) {
                made.push_back(objects_.size());
                objects_.push_back(std::make_shared<const TokenObject>(std::move(object)));
                handles_.push_back(CK_INVALID_HANDLE);
            }
        }
        entry.count = objects_.size() - entry.first;
        itemObjects_.push_back(entry);
    }
    giveHandles(previous, keptItems, made, newHandle);

    byHandle_.reserve(handles_.size());
    for (std::size_t i = 0; i < handles_.size(); ++i) byHandle_.emplace_back(handles_[i], i);
    std::ranges::sort(byHandle_);
}

void ObjectCatalog::keep(const ObjectCatalog& previous, const ItemObjects& objects) {
    const auto from = static_cast<std::ptrdiff_t>(objects.first);
    const auto to = static_cast<std::ptrdiff_t>(objects.first + objects.count);
    objects_.insert(objects_.end(), previous.objects_.begin() + from,
                    previous.objects_.begin() + to);
    handles_.insert(handles_.end(), previous.handles_.begin() + from,
                    previous.handles_.begin() + to);
}

void ObjectCatalog::giveHandles(const ObjectCatalog& previous, const std::vector<bool>& keptItems,
                                const std::vector<std::size_t>& made, const NewHandle& newHandle) {
    std::vector<FreedHandle> freed;
    for (std::size_t i = 0; i < keptItems.size(); ++i) {
        if (keptItems[i]) continue;
        const auto& entry = previous.itemObjects_[i];
        for (std::size_t j = entry.first; j < entry.first + entry.count; ++j)
            freed.push_back({keyOf(*previous.objects_[j]), previous.handles_[j]});
    }
    // Stable, so that of several objects of one class and id each takes the handle of the one
    // that stood in its place in token order.
    std::ranges::stable_sort(freed, std::ranges::less{}, &FreedHandle::key);
    for (const std::size_t index : made) {
        const auto [first, last] = std::ranges::equal_range(freed, keyOf(*objects_[index]),
                                                            std::ranges::less{}, &FreedHandle::key);
        const auto free = std::ranges::find(first, last, false, &FreedHandle::taken);
        if (free != last) free->taken = true;
        handles_[index] = free != last ? free->handle : newHandle();
    }
}

std::shared_ptr<const TokenObject> ObjectCatalog::find(CK_OBJECT_HANDLE handle) const {
    const auto found = std::ranges::lower_bound(byHandle_, handle, {},
                                                &std::pair<CK_OBJECT_HANDLE, std::size_t>::first);
    if (found == byHandle_.end() || found->first != handle) return nullptr;
    return objects_[found->second];
}

std::optional<CK_OBJECT_HANDLE> ObjectCatalog::handleOf(const ObjectIdentity& identity) const {
    for (std::size_t i = 0; i < objects_.size(); ++i) {
        if (objects_[i]->identity == identity) return handles_[i];
    }
    return std::nullopt;
}

const keys::KeyStorage* ObjectCatalog::storedKey(const Bytes& publicKeyHash) const {
    const auto found = storedKeys_->find(publicKeyHash);
    return found != storedKeys_->end() ? &found->second : nullptr;
}

}  // namespace keyloft::pkcs11
