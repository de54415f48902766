#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/bytes.hpp"
#include "keys/stored_key_records.hpp"

namespace keyloft::keys {

// One record as read from the data, its bytes viewed in place.
struct BoundKeyView {
    ByteView pubKeyHash;
    ByteView keyData;
    BiometryProtection biometryProtection;
};
struct SealedKeyView {
    ByteView pubKeyHash;
    std::string keyType;
    ByteView wrappedPrivateKey;
    ByteView wrappingPrivateKeyData;
    BiometryProtection biometryProtection;
};
struct KeyStorageView {
    std::optional<BoundKeyView> boundKey;
    std::optional<SealedKeyView> sealedKey;

    KeyStorage owned() const;
};
using StoredKeyVisitor = std::function<void(ByteView hash, const KeyStorageView& storage)>;

// Reads every record of the data in order, checking it as decodeStoredKeys does and throwing the
// same errors, without keeping any: for a question about all records that needs none of them
// afterwards. The version is compared after the records were read.
void readStoredKeys(const std::optional<Bytes>& configurationData, const StoredKeyVisitor& visit);

// The stored-key map held in the token configuration's data. No data gives an empty map. Throws
// KeyloftError::decodeDataFailed for anything but a well-formed record, and
// KeyloftError::dataVersionMismatch for a well-formed record of another version.
StoredKeyMap decodeStoredKeys(const std::optional<Bytes>& configurationData);

// For a reader that serves each identity on its own: the records that decode and hold a key. A
// damaged record is logged and left out rather than refusing the whole data; damage outside the
// records throws as decodeStoredKeys does.
StoredKeyMap decodeUsableStoredKeys(const std::optional<Bytes>& configurationData);

// The configuration data for the map: a binary property list of the current version, with room
// for records added later in place.
Bytes encodeStoredKeys(const StoredKeyMap& keys);

// The changes that add the records to configuration data written by encodeStoredKeys, in place:
// the data keeps its length, so that storing the change costs what was added. Nothing when the
// data has too little room left or another layout; then it is to be encoded again whole. The
// data must decode; a record whose hash it holds already replaces that record, as the later of
// two pairs does when decoded.
std::optional<std::vector<BytePatch>> appendStoredKeys(ByteView configurationData,
                                                       const StoredKeyMap& added);

}  // namespace keyloft::keys
