#include "keys/stored_key_codec.hpp"

#include <algorithm>
#include <array>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/error.hpp"
#include "platform/os/log.hpp"
#include "platform/plist/plist_extension.hpp"
#include "platform/plist/plist_reader.hpp"
#include "platform/plist/plist_writer.hpp"

namespace keyloft::keys {
namespace {

using platform::plist::PlistExtension;
using platform::plist::PlistKind;
using platform::plist::PlistReader;
using platform::plist::PlistWriter;
using Object = PlistReader::Object;

// The records' names, spelled once for the reader and the writer (docs/storage.md).
namespace field {
constexpr std::string_view pubKeyHash = "pubKeyHash";
constexpr std::string_view keyData = "keyData";
constexpr std::string_view keyType = "keyType";
constexpr std::string_view wrappedPrivateKey = "wrappedPrivateKey";
constexpr std::string_view wrappingPrivateKeyData = "wrappingPrivateKeyData";
constexpr std::string_view biometryProtection = "biometryProtection";
constexpr std::string_view boundKey = "bastionKey";
constexpr std::string_view sealedKey = "sealedKey";
}  // namespace field

// Where and why the stored layout was not met; only its text reaches the diagnostic log.
class LayoutError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Where a value sits, spelled out only when it is reported: "keys[3].sealedKey.keyType".
struct Path {
    const Path* parent = nullptr;
    std::string_view member;  // empty for an element of an array
    std::size_t index = 0;

    Path operator/(std::string_view name) const { return {this, name, 0}; }
    Path operator[](std::size_t at) const { return {this, {}, at}; }

    std::string text() const {
        if (parent == nullptr) return std::string(member);
        std::string prefix = parent->text();
        if (member.empty()) return prefix + "[" + std::to_string(index) + "]";
        return prefix.empty() ? std::string(member) : prefix + "." + std::string(member);
    }
};

const Path root{};

void expect(const PlistReader& list, Object object, PlistKind kind, const Path& path,
            std::string_view name = {}) {
    const PlistKind found = list.kind(object);
    if (found == kind) return;
    throw LayoutError((name.empty() ? path.text() : std::string(name)) + ": expected " +
                      std::string(platform::plist::kindName(kind)) + ", found " +
                      std::string(platform::plist::kindName(found)));
}

Object required(const PlistReader& list, Object dictionary, std::string_view key,
                const Path& path) {
    if (const auto value = list.member(dictionary, key)) return *value;
    throw LayoutError((path / key).text() + ": missing");
}

// The members of one dictionary, found in one pass and checked as they are taken.
template <std::size_t count>
class Fields {
  public:
    Fields(const PlistReader& list, Object dictionary, const Path& path,
           const std::array<std::string_view, count>& names)
        : list_(list), path_(path), names_(names) {
        list.members(dictionary, names, values_);
    }

    std::optional<Object> optional(std::size_t field) const { return values_[field]; }

    ByteView data(std::size_t field) const { return list_.data(of(field, PlistKind::data)); }
    std::string text(std::size_t field) const { return list_.text(of(field, PlistKind::string)); }
    BiometryProtection protection(std::size_t field) const {
        const auto raw = text(field);
        if (const auto protection = biometryProtectionFromRaw(raw)) return *protection;
        throw LayoutError((path_ / names_[field]).text() + ": unknown value \"" + raw + "\"");
    }

  private:
    Object of(std::size_t field, PlistKind kind) const {
        if (!values_[field]) throw LayoutError((path_ / names_[field]).text() + ": missing");
        expect(list_, *values_[field], kind, path_ / names_[field]);
        return *values_[field];
    }

    const PlistReader& list_;
    const Path& path_;
    const std::array<std::string_view, count>& names_;
    std::array<std::optional<Object>, count> values_{};
};

BoundKeyView readBoundKey(const PlistReader& list, Object value, const Path& path) {
    static constexpr std::array<std::string_view, 3> names = {field::pubKeyHash, field::keyData,
                                                              field::biometryProtection};
    expect(list, value, PlistKind::dictionary, path);
    const Fields fields(list, value, path, names);
    return {.pubKeyHash = fields.data(0),
            .keyData = fields.data(1),
            .biometryProtection = fields.protection(2)};
}

SealedKeyView readSealedKey(const PlistReader& list, Object value, const Path& path) {
    static constexpr std::array<std::string_view, 5> names = {
        field::pubKeyHash, field::keyType, field::wrappedPrivateKey, field::wrappingPrivateKeyData,
        field::biometryProtection};
    expect(list, value, PlistKind::dictionary, path);
    const Fields fields(list, value, path, names);
    return {.pubKeyHash = fields.data(0),
            .keyType = fields.text(1),
            .wrappedPrivateKey = fields.data(2),
            .wrappingPrivateKeyData = fields.data(3),
            .biometryProtection = fields.protection(4)};
}

KeyStorageView readKeyStorage(const PlistReader& list, Object value, const Path& path) {
    static constexpr std::array<std::string_view, 2> names = {field::boundKey, field::sealedKey};
    expect(list, value, PlistKind::dictionary, path);
    const Fields fields(list, value, path, names);
    KeyStorageView storage;
    if (const auto boundKey = fields.optional(0))
        storage.boundKey = readBoundKey(list, *boundKey, path / names[0]);
    if (const auto sealedKey = fields.optional(1))
        storage.sealedKey = readSealedKey(list, *sealedKey, path / names[1]);
    return storage;
}

// What reading does with a record that does not decode.
enum class DamagedRecord { refuse, skip };

// The map is a flat list: hash, storage, hash, storage, ...
void readKeyPairs(const PlistReader& list, Object value, const StoredKeyVisitor& visit,
                  DamagedRecord damaged) {
    const Path keys = root / "keys";
    expect(list, value, PlistKind::array, keys);
    const auto pairs = list.elements(value);
    if (pairs.size() % 2 != 0) {
        throw LayoutError("keys: odd number of elements (" + std::to_string(pairs.size()) + ")");
    }
    for (std::size_t i = 0; i < pairs.size(); i += 2) {
        std::optional<KeyStorageView> storage;
        try {
            expect(list, pairs[i], PlistKind::data, keys[i]);
            storage = readKeyStorage(list, pairs[i + 1], keys[i + 1]);
        } catch (const std::runtime_error& failure) {
            if (damaged == DamagedRecord::refuse) throw;
            platform::os::logError(std::string("Skipping a damaged key record: ") + failure.what());
            continue;
        }
        visit(list.data(pairs[i]), *storage);
    }
}

// The data's version; the records, read before it is compared, go to the visitor.
std::int64_t readDataStorage(const PlistReader& list, const StoredKeyVisitor& visit,
                             DamagedRecord damaged) {
    expect(list, list.top(), PlistKind::dictionary, root, "root");
    const Object version = required(list, list.top(), "version", root);
    expect(list, version, PlistKind::integer, root / "version");
    const std::int64_t value = list.integer(version);
    // Never written without "keys", but such a record holds no keys.
    if (const auto keys = list.member(list.top(), "keys"))
        readKeyPairs(list, *keys, visit, damaged);
    return value;
}

// The names a record uses, written once and shared by every record; the first objects of the
// list, so that records added later find them.
struct Names {
    static constexpr std::string_view texts[] = {field::pubKeyHash,
                                                 field::keyData,
                                                 field::keyType,
                                                 field::wrappedPrivateKey,
                                                 field::wrappingPrivateKeyData,
                                                 field::biometryProtection,
                                                 field::boundKey,
                                                 field::sealedKey,
                                                 "on",
                                                 "off"};
    static_assert(std::size(texts) == 10);

    explicit Names(PlistWriter& writer) {
        for (std::size_t i = 0; i < std::size(texts); ++i) objects[i] = writer.text(texts[i]);
    }
    // The names of a list written by encodeStoredKeys; nothing for another layout.
    static std::optional<Names> found(const PlistReader& list) {
        if (list.layout().objectCount < std::size(texts)) return std::nullopt;
        Names names;
        for (Object i = 0; i < std::size(texts); ++i) {
            if (list.kind(i) != PlistKind::string || list.text(i) != texts[i]) return std::nullopt;
            names.objects[i] = i;
        }
        return names;
    }

    Object pubKeyHash() const { return objects[0]; }
    Object keyData() const { return objects[1]; }
    Object keyType() const { return objects[2]; }
    Object wrappedPrivateKey() const { return objects[3]; }
    Object wrappingPrivateKeyData() const { return objects[4]; }
    Object biometryProtection() const { return objects[5]; }
    Object boundKey() const { return objects[6]; }
    Object sealedKey() const { return objects[7]; }
    Object protection(BiometryProtection value) const {
        return value == BiometryProtection::on ? objects[8] : objects[9];
    }

  private:
    Names() = default;
    std::array<Object, std::size(texts)> objects{};
};
constexpr std::uint64_t nameCount = std::size(Names::texts);
// A record's objects at most: its storage dictionary, one inner dictionary and five values each.
constexpr std::uint64_t objectsPerRecord = 1 + 2 * (1 + 5);
// Objects and bytes a record takes at most, its hash included, but for keys of unusual size.
constexpr std::uint64_t objectsPerPair = 1 + objectsPerRecord;
constexpr std::size_t bytesPerPair = 400;

// Room kept for a quarter as many records again, at least 32, in the list and in its array of
// records: adding one costs its own bytes until the room is used up, and the data is then encoded
// again with new room.
std::uint64_t roomRecordsFor(std::size_t records) {
    return std::max<std::uint64_t>(32, records / 4);
}

Object encodeKeyStorage(PlistWriter& writer, const Names& names, const KeyStorage& storage) {
    std::vector<std::pair<Object, Object>> records;
    if (const auto& key = storage.boundKey) {
        const std::pair<Object, Object> fields[] = {
            {names.pubKeyHash(), writer.data(key->pubKeyHash)},
            {names.keyData(), writer.data(key->keyData)},
            {names.biometryProtection(), names.protection(key->biometryProtection)},
        };
        records.emplace_back(names.boundKey(), writer.dictionary(fields));
    }
    if (const auto& key = storage.sealedKey) {
        const std::pair<Object, Object> fields[] = {
            {names.pubKeyHash(), writer.data(key->pubKeyHash)},
            {names.keyType(), writer.text(key->keyType)},
            {names.wrappedPrivateKey(), writer.data(key->wrappedPrivateKey)},
            {names.wrappingPrivateKeyData(), writer.data(key->wrappingPrivateKeyData)},
            {names.biometryProtection(), names.protection(key->biometryProtection)},
        };
        records.emplace_back(names.sealedKey(), writer.dictionary(fields));
    }
    return writer.dictionary(records);
}

}  // namespace

KeyStorage KeyStorageView::owned() const {
    KeyStorage storage;
    if (boundKey) {
        storage.boundKey = BoundKey{bytesOf(boundKey->pubKeyHash), bytesOf(boundKey->keyData),
                                    boundKey->biometryProtection};
    }
    if (sealedKey) {
        storage.sealedKey =
            SealedKey{bytesOf(sealedKey->pubKeyHash), sealedKey->keyType,
                      bytesOf(sealedKey->wrappedPrivateKey),
                      bytesOf(sealedKey->wrappingPrivateKeyData), sealedKey->biometryProtection};
    }
    return storage;
}

namespace {

void readRecords(const std::optional<Bytes>& configurationData, const StoredKeyVisitor& visit,
                 DamagedRecord damaged) {
    if (!configurationData) return;
    std::int64_t version = 0;
    try {
        version = readDataStorage(PlistReader(*configurationData), visit, damaged);
    } catch (const std::runtime_error& failure) {
        // Both the property-list reader (PlatformError) and the layout checks (LayoutError) land
        // here.
        platform::os::logError(std::string("Failed to decode data: ") + failure.what());
        throw KeyloftError::decodeDataFailed();
    }
    if (version != currentDataVersion) {
        platform::os::logDebug("Ignoring decoded data with different version: " +
                               std::to_string(version));
        throw KeyloftError::dataVersionMismatch();
    }
}

StoredKeyMap decodeRecords(const std::optional<Bytes>& configurationData, DamagedRecord damaged) {
    StoredKeyMap map;
    readRecords(
        configurationData,
        [&](ByteView hash, const KeyStorageView& storage) {
            // The tool writes the pairs in order, so each goes in at the end; a later pair of the
            // same hash replaces an earlier one.
            map.insert_or_assign(map.end(), Bytes(hash.begin(), hash.end()), storage.owned());
        },
        damaged);
    return map;
}

}  // namespace

void readStoredKeys(const std::optional<Bytes>& configurationData, const StoredKeyVisitor& visit) {
    readRecords(configurationData, visit, DamagedRecord::refuse);
}

StoredKeyMap decodeStoredKeys(const std::optional<Bytes>& configurationData) {
    return decodeRecords(configurationData, DamagedRecord::refuse);
}

StoredKeyMap decodeUsableStoredKeys(const std::optional<Bytes>& configurationData) {
    auto map = decodeRecords(configurationData, DamagedRecord::skip);
    std::erase_if(
        map, [](const auto& entry) { return !entry.second.boundKey && !entry.second.sealedKey; });
    return map;
}

Bytes encodeStoredKeys(const StoredKeyMap& keys) {
    const std::uint64_t roomRecords = roomRecordsFor(keys.size());
    const platform::plist::PlistRoom room{.bytes = roomRecords * bytesPerPair,
                                          .objects = roomRecords * objectsPerPair};
    PlistWriter writer(nameCount + 5 + keys.size() * objectsPerPair + room.objects,
                       256 + (keys.size() + roomRecords) * bytesPerPair);
    const Names names(writer);
    std::vector<Object> pairs;
    pairs.reserve(keys.size() * 2);
    for (const auto& [hash, storage] : keys) {
        pairs.push_back(writer.data(hash));
        pairs.push_back(encodeKeyStorage(writer, names, storage));
    }
    const std::pair<Object, Object> top[] = {
        {writer.text("version"), writer.integer(currentDataVersion)},
        {writer.text("keys"), writer.array(pairs, 2 * roomRecords)},
    };
    return writer.finish(writer.dictionary(top), room);
}

std::optional<std::vector<BytePatch>> appendStoredKeys(ByteView configurationData,
                                                       const StoredKeyMap& added) {
    try {
        const PlistReader list(configurationData);
        const auto names = Names::found(list);
        const auto keys = list.member(list.top(), "keys");
        if (!names || !keys || list.kind(*keys) != PlistKind::array) return std::nullopt;
        PlistExtension extension(list);
        if (extension.objectRoom() < added.size() * objectsPerPair) return std::nullopt;
        PlistWriter& writer = extension.writer();
        std::vector<Object> pairs;
        for (const auto& [hash, storage] : added) {
            pairs.push_back(writer.data(hash));
            pairs.push_back(encodeKeyStorage(writer, *names, storage));
        }
        if (!extension.extendArray(*keys, pairs)) return std::nullopt;
        return extension.finish(list.top());
    } catch (const std::runtime_error&) {
        // Data that cannot take the records in place is encoded again whole.
        return std::nullopt;
    }
}

}  // namespace keyloft::keys
