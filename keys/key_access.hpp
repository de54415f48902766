#pragma once

#include <memory>
#include <utility>

#include "keys/stored_key_records.hpp"
#include "platform/key_processor/key_processor.hpp"
#include "platform/key_service/software_key.hpp"

namespace keyloft::keys {

using platform::key_processor::AuthenticationContext;

// The private key a record reaches; a processor key wins over a sealed one. Throws "Stored key not
// found" for a record holding neither.
std::unique_ptr<platform::key_service::PrivateKey> privateKey(
    const KeyStorage& storage, const std::shared_ptr<AuthenticationContext>& context);

// Throws storedKeyOfAnotherHash when the key's public key does not hash to the public-key hash
// that named it: a record swapped or copied by hand, or filed under another key's certificate,
// would otherwise sign or leave the card as this identity's key.
void requireKeyOfHash(const platform::key_service::PrivateKey& key, ByteView publicKeyHash);

struct Protection {
    BiometryProtection biometryProtection;
    bool exportable;  // true for a sealed software key
};
Protection protectionOf(const KeyStorage& storage);

// The sealed private key's external representation, opened with its wrapping key.
platform::crypto::SecretBytes unwrapPrivateKeyData(
    const SealedKey& key, const std::shared_ptr<AuthenticationContext>& context);
platform::key_service::SoftwareKey unwrapPrivateKey(
    const SealedKey& key, const std::shared_ptr<AuthenticationContext>& context);
std::pair<platform::key_service::SoftwareKey, platform::crypto::SecretBytes>
unwrapPrivateKeyWithData(const SealedKey& key,
                         const std::shared_ptr<AuthenticationContext>& context);

}  // namespace keyloft::keys
