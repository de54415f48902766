#pragma once

#include <memory>
#include <utility>

#include "keys/key_handle.hpp"
#include "keys/stored_key_records.hpp"

namespace keyloft::keys {

using platform::AuthenticationContext;

// The handle of a stored key and its key type; a processor key wins over a sealed one. Throws
// "Stored key not found" for a record holding neither.
std::pair<KeyHandle, std::string> keyHandle(const KeyStorage& storage,
                                            const std::shared_ptr<AuthenticationContext>& context);

struct Protection {
    BiometryProtection biometryProtection;
    bool exportable;  // true for a sealed software key
};
Protection protectionOf(const KeyStorage& storage);

// The sealed private key's external representation, opened with its wrapping key.
platform::SecretBytes unwrapPrivateKeyData(const SealedKey& key,
                                           const std::shared_ptr<AuthenticationContext>& context);
platform::SoftwareKey unwrapPrivateKey(const SealedKey& key,
                                       const std::shared_ptr<AuthenticationContext>& context);
std::pair<platform::SoftwareKey, platform::SecretBytes> unwrapPrivateKeyWithData(
    const SealedKey& key, const std::shared_ptr<AuthenticationContext>& context);

// Signs with a fresh authentication context.
Bytes signWithStoredKey(ByteView message, const KeyStorage& storage,
                        platform::SignatureAlgorithm algorithm);

}  // namespace keyloft::keys
