// Whatever the configuration data, decoding gives a map or one of the two decoding errors; a map
// survives being written and read again; a record added in place, when the data has room for it,
// reads back beside the others.

#include <cstdlib>
#include <string_view>

#include "base/error.hpp"
#include "keys/stored_key_codec.hpp"

// The system log is not under test, and a line per input would flood it.
namespace keyloft::platform::os {
void logError(std::string_view /*message*/) {}
void logDebug(std::string_view /*message*/) {}
}  // namespace keyloft::platform::os

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using keyloft::KeyloftError;
    keyloft::keys::StoredKeyMap keys;
    try {
        keys = keyloft::keys::decodeStoredKeys(keyloft::Bytes(data, data + size));
    } catch (const KeyloftError& error) {
        if (error.errorCase() == KeyloftError::Case::genericError) std::abort();
        return 0;
    }
    if (keyloft::keys::decodeStoredKeys(keyloft::keys::encodeStoredKeys(keys)) != keys)
        std::abort();

    const keyloft::Bytes hash(20, 0xA5);
    if (keys.contains(hash)) return 0;
    const keyloft::keys::StoredKeyMap added{
        {hash, {.boundKey = keyloft::keys::BoundKey{hash, {1, 2, 3}}}}};
    const auto patches = keyloft::keys::appendStoredKeys({data, size}, added);
    if (!patches) return 0;
    // A patch past the end throws, and ends the run as a finding.
    keyloft::Bytes patched(data, data + size);
    keyloft::applyPatches(patched, *patches);
    keys.merge(keyloft::keys::StoredKeyMap(added));
    if (keyloft::keys::decodeStoredKeys(patched) != keys) std::abort();
    return 0;
}
