#include "pkcs11/object_catalog.hpp"

#include <algorithm>
#include <string_view>

#include "base/error.hpp"
#include "keys/stored_key_codec.hpp"

namespace keyloft::pkcs11 {
namespace {

using platform::token_store::SharedTokenItem;
using platform::token_store::TokenItem;

// Damaged configuration data leaves the keys unusable, not the certificates unreadable; a damaged
// record, its identity alone without a private key.
keys::StoredKeyMap storedKeysOf(const std::shared_ptr<const Bytes>& configurationData) {
    try {
        return keys::decodeUsableStoredKeys(configurationData ? std::optional(*configurationData)
                                                              : std::nullopt);
    } catch (const KeyloftError&) {
        return {};
    }
}

// No position: an item the previous catalog did not hold.
constexpr std::size_t none = SIZE_MAX;

bool sameLabel(const std::string* a, const std::string* b) {
    return a == b || (a != nullptr && b != nullptr && *a == *b);
}

std::size_t hashOf(ByteView objectID) {
    return std::hash<std::string_view>{}(
        {reinterpret_cast<const char*>(objectID.data()), objectID.size()});
}

// Of the public-key hash a key item's private key is stored under; never 0, which stands for none.
std::size_t keyHashOf(const card::IdentityKey* key) {
    return key != nullptr ? hashOf(key->publicKeyHash) | 1U : 0;
}

// Hashes (as keyHashOf) of the public-key hashes whose record came, went or changed custody: only
// the key items stored under them need looking up again.
std::vector<std::size_t> changedRecords(const keys::StoredKeyMap& before,
                                        const keys::StoredKeyMap& after) {
    auto custody = [](const keys::KeyStorage& storage) {
        return std::pair(storage.boundKey.has_value(), storage.sealedKey.has_value());
    };
    std::vector<std::size_t> changed;
    auto was = before.begin();
    auto is = after.begin();
    while (was != before.end() || is != after.end()) {
        if (is == after.end() || (was != before.end() && was->first < is->first)) {
            changed.push_back(hashOf(was++->first) | 1U);
        } else if (was == before.end() || is->first < was->first) {
            changed.push_back(hashOf(is++->first) | 1U);
        } else {
            if (custody(was->second) != custody(is->second))
                changed.push_back(hashOf(is->first) | 1U);
            ++was;
            ++is;
        }
    }
    std::ranges::sort(changed);
    return changed;
}

bool lessID(ByteView a, ByteView b) {
    return compareIDs(a, b) < 0;
}

// Finds items of the previous catalog by address. Items mostly keep their order, so the one
// after the last found is tried first; the index is sorted only when that fails.
class PreviousItems {
  public:
    explicit PreviousItems(std::span<const SharedTokenItem> items) : items_(items) {}

    std::size_t find(const TokenItem* item) {
        if (next_ < items_.size() && items_[next_].get() == item) return next_++;
        if (byAddress_.empty()) {
            byAddress_.reserve(items_.size());
            for (std::size_t i = 0; i < items_.size(); ++i)
                byAddress_.emplace_back(items_[i].get(), i);
            std::ranges::sort(byAddress_);
        }
        const auto found = std::ranges::lower_bound(byAddress_, item, {}, &Entry::first);
        if (found == byAddress_.end() || found->first != item) return none;
        next_ = found->second + 1;
        return found->second;
    }

  private:
    using Entry = std::pair<const TokenItem*, std::size_t>;
    std::span<const SharedTokenItem> items_;
    std::size_t next_ = 0;
    std::vector<Entry> byAddress_;
};

// For each item, its position among the previous items, or none; marks the previous items that
// stay.
std::vector<std::size_t> positionsBefore(std::span<const SharedTokenItem> previousItems,
                                         std::span<const SharedTokenItem> items,
                                         std::vector<bool>& stays) {
    std::vector<std::size_t> before(items.size(), none);
    PreviousItems previous(previousItems);
    for (std::size_t i = 0; i < items.size(); ++i) {
        const std::size_t found = previous.find(items[i].get());
        if (found == none || stays[found]) continue;
        stays[found] = true;
        before[i] = found;
    }
    return before;
}

// A handle of a dropped object, for an object made anew with the same class and id.
struct FreedHandle {
    CK_OBJECT_CLASS objectClass;
    ByteView objectID;
    CK_OBJECT_HANDLE handle;
    bool taken = false;

    bool before(CK_OBJECT_CLASS otherClass, ByteView otherID) const {
        return objectClass != otherClass ? objectClass < otherClass : lessID(objectID, otherID);
    }
    bool names(const ObjectIdentity& identity) const {
        return objectClass == identity.objectClass && compareIDs(objectID, identity.objectID) == 0;
    }
};

}  // namespace

ObjectCatalog::ObjectCatalog(const ObjectCatalog& previous,
                             platform::token_store::TokenSnapshot snapshot,
                             const NewHandle& newHandle)
    : snapshot_(std::move(snapshot)) {
    const bool sameKeys = snapshot_.configurationData == previous.snapshot_.configurationData;
    if (sameKeys) {
        storedKeys_ = previous.storedKeys_;
    } else {
        storedKeys_ =
            std::make_shared<const keys::StoredKeyMap>(storedKeysOf(snapshot_.configurationData));
    }
    const auto changedKeys =
        sameKeys ? std::vector<std::size_t>{} : changedRecords(*previous.storedKeys_, *storedKeys_);
    const auto& items = snapshot_.items;
    std::vector<bool> stays(previous.itemObjects_.size(), false);
    const auto before = positionsBefore(previous.snapshot_.items, items, stays);
    const auto labels = labelsAfter(previous, before, stays);

    std::vector<bool> keptItems(previous.itemObjects_.size(), false);
    std::vector<std::size_t> remade;
    itemObjects_.reserve(items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        const ItemObjects* old = before[i] != none ? &previous.itemObjects_[before[i]] : nullptr;
        // An item kept from the previous snapshot is the same row: its key is the one read then.
        auto key = old != nullptr ? old->key : identityKeyOf(*items[i]);
        const bool lookUp = old == nullptr || (old->keyHash != 0 && std::ranges::binary_search(
                                                                        changedKeys, old->keyHash));
        const PrivateKeyCustody custody =
            lookUp ? custodyOf(key.get(), *storedKeys_) : old->custody;
        if (old != nullptr && old->custody == custody && sameLabel(old->label, labels[i])) {
            keptItems[before[i]] = true;
            itemObjects_.push_back({labels[i], old->idHash, old->keyHash, std::move(key), custody,
                                    old->objects, old->handles, old->count});
        } else {
            remade.push_back(i);
            const std::size_t idHash = old != nullptr ? old->idHash : hashOf(objectIDOf(*items[i]));
            const std::size_t keyHash = old != nullptr ? old->keyHash : keyHashOf(key.get());
            itemObjects_.push_back({labels[i], idHash, keyHash, std::move(key), custody, nullptr});
        }
    }
    makeObjects(previous, keptItems, remade, newHandle);

    // Handles are given in token order and kept in place, so they are seldom out of order.
    for (std::size_t i = 0; i < itemObjects_.size(); ++i) {
        const auto& entry = itemObjects_[i];
        for (std::uint32_t j = 0; j < entry.count; ++j)
            places_.push_back({entry.handles[j], static_cast<std::uint32_t>(i), j});
    }
    if (!std::ranges::is_sorted(places_, {}, &Place::handle))
        std::ranges::sort(places_, {}, &Place::handle);
}

std::vector<const std::string*> ObjectCatalog::labelsAfter(const ObjectCatalog& previous,
                                                           const std::vector<std::size_t>& before,
                                                           const std::vector<bool>& stays) const {
    const auto& items = snapshot_.items;
    // Ids of items that came or went, by hash: only their identities' labels may have changed. A
    // hash shared by chance only costs working a label out again.
    std::vector<std::size_t> touched;
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (before[i] == none) touched.push_back(hashOf(objectIDOf(*items[i])));
    }
    for (std::size_t j = 0; j < stays.size(); ++j) {
        if (!stays[j]) touched.push_back(previous.itemObjects_[j].idHash);
    }
    std::ranges::sort(touched);

    std::vector<const std::string*> labels(items.size(), nullptr);
    std::vector<const TokenItem*> again;
    std::vector<std::size_t> againAt;
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (before[i] != none &&
            !std::ranges::binary_search(touched, previous.itemObjects_[before[i]].idHash)) {
            // Its identity's items are all still here, so the label it points into is too.
            labels[i] = previous.itemObjects_[before[i]].label;
            continue;
        }
        again.push_back(items[i].get());
        againAt.push_back(i);
    }
    const auto worked = identityLabels(again);
    for (std::size_t k = 0; k < again.size(); ++k) labels[againAt[k]] = worked[k];
    return labels;
}

void ObjectCatalog::makeObjects(const ObjectCatalog& previous, const std::vector<bool>& keptItems,
                                const std::vector<std::size_t>& remade,
                                const NewHandle& newHandle) {
    std::vector<FreedHandle> freed;
    for (std::size_t i = 0; i < keptItems.size(); ++i) {
        const auto& entry = previous.itemObjects_[i];
        if (keptItems[i]) continue;
        for (std::size_t j = 0; j < entry.count; ++j) {
            const auto& identity = (*entry.objects)[j].identity;
            freed.push_back({identity.objectClass, identity.objectID, entry.handles[j]});
        }
    }
    // Stable, so that of several objects of one class and id each takes the handle of the one
    // that stood in its place in token order.
    std::ranges::stable_sort(freed, [](const FreedHandle& a, const FreedHandle& b) {
        return a.before(b.objectClass, b.objectID);
    });
    auto handleFor = [&](const ObjectIdentity& identity) {
        auto candidate = std::ranges::partition_point(freed, [&](const FreedHandle& entry) {
            return entry.before(identity.objectClass, identity.objectID);
        });
        for (; candidate != freed.end() && candidate->names(identity); ++candidate) {
            if (candidate->taken) continue;
            candidate->taken = true;
            return candidate->handle;
        }
        return newHandle(identity);
    };

    for (const std::size_t i : remade) {
        auto& entry = itemObjects_[i];
        auto objects =
            itemObjects(*snapshot_.items[i], entry.key.get(), entry.label, entry.custody);
        auto block = std::make_shared<ObjectBlock>();
        for (std::size_t j = 0; j < objects.size(); ++j) {
            entry.handles.at(j) = handleFor(objects[j].identity);
            (*block)[j] = std::move(objects[j]);
        }
        entry.count = static_cast<std::uint8_t>(objects.size());
        entry.objects = std::move(block);
    }
}

std::vector<CK_OBJECT_HANDLE> ObjectCatalog::search(
    std::span<const CK_ATTRIBUTE> searchTemplate) const {
    std::vector<CK_OBJECT_HANDLE> found;
    for (const auto& entry : itemObjects_) {
        for (std::size_t j = 0; j < entry.count; ++j) {
            if ((*entry.objects)[j].attributes.matches(searchTemplate))
                found.push_back(entry.handles[j]);
        }
    }
    return found;
}

std::shared_ptr<const TokenObject> ObjectCatalog::find(CK_OBJECT_HANDLE handle) const {
    const auto found = std::ranges::lower_bound(places_, handle, {}, &Place::handle);
    if (found == places_.end() || found->handle != handle) return nullptr;
    const auto& objects = itemObjects_[found->item].objects;
    // Shares the objects' ownership, so the object outlives a re-read that drops it.
    return {objects, &(*objects)[found->object]};
}

std::optional<CK_OBJECT_HANDLE> ObjectCatalog::handleOf(const ObjectIdentity& identity) const {
    for (const auto& entry : itemObjects_) {
        for (std::size_t j = 0; j < entry.count; ++j) {
            if ((*entry.objects)[j].identity == identity) return entry.handles[j];
        }
    }
    return std::nullopt;
}

const keys::KeyStorage* ObjectCatalog::storedKey(const Bytes& publicKeyHash) const {
    const auto found = storedKeys_->find(publicKeyHash);
    return found != storedKeys_->end() ? &found->second : nullptr;
}

}  // namespace keyloft::pkcs11
