#pragma once

#include <optional>

#include "base/bytes.hpp"
#include "keys/stored_key_records.hpp"

namespace keyloft::keys {

// The stored-key map held in the token configuration's data. No data gives an empty map. Throws
// KeyloftError::decodeDataFailed for anything but a well-formed record, and
// KeyloftError::dataVersionMismatch for a well-formed record of another version.
StoredKeyMap decodeStoredKeys(const std::optional<Bytes>& configurationData);

// The configuration data for the map: a binary property list of the current version.
Bytes encodeStoredKeys(const StoredKeyMap& keys);

}  // namespace keyloft::keys
