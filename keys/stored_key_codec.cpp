#include "keys/stored_key_codec.hpp"

#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "base/error.hpp"
#include "platform/os/log.hpp"
#include "platform/plist/binary_plist.hpp"

namespace keyloft::keys {
namespace {

using platform::plist::PlistArray;
using platform::plist::PlistDictionary;
using platform::plist::PlistValue;

// Where and why the stored layout was not met; only its text reaches the diagnostic log.
class LayoutError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

template <class T>
constexpr std::string_view kindName() {
    if constexpr (std::is_same_v<T, PlistDictionary>) return "dictionary";
    if constexpr (std::is_same_v<T, PlistArray>) return "array";
    if constexpr (std::is_same_v<T, Bytes>) return "data";
    if constexpr (std::is_same_v<T, std::string>) return "string";
    if constexpr (std::is_same_v<T, std::int64_t>) return "integer";
}

std::string typeName(const PlistValue& value) {
    return std::visit(
        [](const auto& content) -> std::string {
            using T = std::decay_t<decltype(content)>;
            if constexpr (std::is_same_v<T, platform::plist::PlistUnsupported>) {
                return content.typeName;
            } else {
                return std::string(kindName<T>());
            }
        },
        value.value);
}

template <class T>
const T& expect(const PlistValue& value, const std::string& path) {
    if (const T* content = std::get_if<T>(&value.value)) return *content;
    throw LayoutError(path + ": expected " + std::string(kindName<T>()) + ", found " +
                      typeName(value));
}

std::string memberPath(const std::string& path, std::string_view key) {
    return path.empty() ? std::string(key) : path + "." + std::string(key);
}

const PlistValue& required(const PlistDictionary& dictionary, std::string_view key,
                           const std::string& path) {
    if (const PlistValue* value = platform::plist::findValue(dictionary, key)) return *value;
    throw LayoutError(memberPath(path, key) + ": missing");
}

template <class T>
const T& requiredOf(const PlistDictionary& dictionary, std::string_view key,
                    const std::string& path) {
    return expect<T>(required(dictionary, key, path), memberPath(path, key));
}

BiometryProtection decodeProtection(const PlistDictionary& dictionary, const std::string& path) {
    const auto& raw = requiredOf<std::string>(dictionary, "biometryProtection", path);
    if (const auto protection = biometryProtectionFromRaw(raw)) return *protection;
    throw LayoutError(memberPath(path, "biometryProtection") + ": unknown value \"" + raw + "\"");
}

BastionKey decodeBastionKey(const PlistValue& value, const std::string& path) {
    const auto& dictionary = expect<PlistDictionary>(value, path);
    return {.pubKeyHash = requiredOf<Bytes>(dictionary, "pubKeyHash", path),
            .keyData = requiredOf<Bytes>(dictionary, "keyData", path),
            .biometryProtection = decodeProtection(dictionary, path)};
}

SealedKey decodeSealedKey(const PlistValue& value, const std::string& path) {
    const auto& dictionary = expect<PlistDictionary>(value, path);
    return {.pubKeyHash = requiredOf<Bytes>(dictionary, "pubKeyHash", path),
            .keyType = requiredOf<std::string>(dictionary, "keyType", path),
            .wrappedPrivateKey = requiredOf<Bytes>(dictionary, "wrappedPrivateKey", path),
            .wrappingPrivateKeyData = requiredOf<Bytes>(dictionary, "wrappingPrivateKeyData", path),
            .biometryProtection = decodeProtection(dictionary, path)};
}

KeyStorage decodeKeyStorage(const PlistValue& value, const std::string& path) {
    const auto& dictionary = expect<PlistDictionary>(value, path);
    KeyStorage storage;
    if (const PlistValue* bastionKey = platform::plist::findValue(dictionary, "bastionKey")) {
        storage.bastionKey = decodeBastionKey(*bastionKey, memberPath(path, "bastionKey"));
    }
    if (const PlistValue* sealedKey = platform::plist::findValue(dictionary, "sealedKey")) {
        storage.sealedKey = decodeSealedKey(*sealedKey, memberPath(path, "sealedKey"));
    }
    return storage;
}

// The map is a flat list: hash, storage, hash, storage, ...
StoredKeyMap decodeKeyPairs(const PlistValue& value) {
    const auto& pairs = expect<PlistArray>(value, "keys");
    if (pairs.size() % 2 != 0) {
        throw LayoutError("keys: odd number of elements (" + std::to_string(pairs.size()) + ")");
    }
    const auto index = [](std::size_t at) { return "keys[" + std::to_string(at) + "]"; };
    StoredKeyMap keys;
    for (std::size_t i = 0; i < pairs.size(); i += 2) {
        Bytes hash = expect<Bytes>(pairs[i], index(i));
        keys.insert_or_assign(std::move(hash), decodeKeyStorage(pairs[i + 1], index(i + 1)));
    }
    return keys;
}

KeyloftDataStorage decodeDataStorage(const PlistValue& root) {
    const auto& dictionary = expect<PlistDictionary>(root, "root");
    KeyloftDataStorage storage{.version = requiredOf<std::int64_t>(dictionary, "version", "")};
    if (const PlistValue* keys = platform::plist::findValue(dictionary, "keys")) {
        storage.keys = decodeKeyPairs(*keys);
    }
    return storage;
}

PlistValue encodeBastionKey(const BastionKey& key) {
    return {PlistDictionary{
        {"pubKeyHash", {key.pubKeyHash}},
        {"keyData", {key.keyData}},
        {"biometryProtection", {std::string(rawValue(key.biometryProtection))}},
    }};
}

PlistValue encodeSealedKey(const SealedKey& key) {
    return {PlistDictionary{
        {"pubKeyHash", {key.pubKeyHash}},
        {"keyType", {key.keyType}},
        {"wrappedPrivateKey", {key.wrappedPrivateKey}},
        {"wrappingPrivateKeyData", {key.wrappingPrivateKeyData}},
        {"biometryProtection", {std::string(rawValue(key.biometryProtection))}},
    }};
}

PlistValue encodeKeyStorage(const KeyStorage& storage) {
    PlistDictionary dictionary;
    if (storage.bastionKey)
        dictionary.emplace_back("bastionKey", encodeBastionKey(*storage.bastionKey));
    if (storage.sealedKey)
        dictionary.emplace_back("sealedKey", encodeSealedKey(*storage.sealedKey));
    return {std::move(dictionary)};
}

}  // namespace

StoredKeyMap decodeStoredKeys(const std::optional<Bytes>& configurationData) {
    if (!configurationData) return {};
    KeyloftDataStorage storage;
    try {
        storage = decodeDataStorage(platform::plist::fromBinary(*configurationData));
    } catch (const std::runtime_error& failure) {
        // Both the property-list reader (PlatformError) and the layout checks (LayoutError) land
        // here.
        platform::os::logError(std::string("Failed to decode data: ") + failure.what());
        throw KeyloftError::decodeDataFailed();
    }
    if (storage.version != currentDataVersion) {
        platform::os::logDebug("Ignoring decoded data with different version: " +
                               std::to_string(storage.version));
        throw KeyloftError::dataVersionMismatch();
    }
    // Never written without "keys", but such a record holds no keys.
    return storage.keys.value_or(StoredKeyMap{});
}

Bytes encodeStoredKeys(const StoredKeyMap& keys) {
    PlistArray pairs;
    pairs.reserve(keys.size() * 2);
    for (const auto& [hash, storage] : keys) {
        pairs.push_back({hash});
        pairs.push_back(encodeKeyStorage(storage));
    }
    return platform::plist::toBinary({PlistDictionary{
        {"version", {currentDataVersion}},
        {"keys", {std::move(pairs)}},
    }});
}

}  // namespace keyloft::keys
