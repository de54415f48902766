#pragma once

#include <optional>
#include <vector>

#include "base/bytes.hpp"
#include "keys/stored_key_records.hpp"

namespace keyloft::keys {

// The stored-key map held in the token configuration's data. No data gives an empty map. Throws
// KeyloftError::decodeDataFailed for anything but a well-formed record, and
// KeyloftError::dataVersionMismatch for a well-formed record of another version.
StoredKeyMap decodeStoredKeys(const std::optional<Bytes>& configurationData);

// The configuration data for the map: a binary property list of the current version, with room
// for records added later in place.
Bytes encodeStoredKeys(const StoredKeyMap& keys);

// The changes that add the records to configuration data written by encodeStoredKeys, in place:
// the data keeps its length, so that storing the change costs what was added. Nothing when the
// data has too little room left or another layout; then it is to be encoded again whole. The
// data must decode, and hold none of the records' hashes.
std::optional<std::vector<BytePatch>> appendStoredKeys(ByteView configurationData,
                                                       const StoredKeyMap& added);

}  // namespace keyloft::keys
