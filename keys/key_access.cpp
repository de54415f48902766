#include "keys/key_access.hpp"

#include "keyloft/error.hpp"
#include "platform/keyservice/ecies.hpp"

namespace keyloft::keys {

std::pair<KeyHandle, std::string> keyHandle(const KeyStorage& storage,
                                            const std::shared_ptr<AuthenticationContext>& context) {
    if (storage.bastionKey) {
        const auto& record = *storage.bastionKey;
        // An unprotected key never sees the caller's context.
        auto passed = record.biometryProtection == BiometryProtection::on ? context : nullptr;
        auto key =
            platform::keyProcessorFor(record.keyData).rebuildKey(record.keyData, std::move(passed));
        return {KeyHandle(std::move(key)), std::string(platform::keyTypeEC)};
    }
    if (storage.sealedKey) {
        return {KeyHandle(unwrapPrivateKey(*storage.sealedKey, context)),
                storage.sealedKey->keyType};
    }
    throw storedKeyNotFound();
}

Protection protectionOf(const KeyStorage& storage) {
    if (storage.bastionKey) return {storage.bastionKey->biometryProtection, false};
    if (storage.sealedKey) return {storage.sealedKey->biometryProtection, true};
    throw storedKeyNotFound();
}

platform::SecretBytes unwrapPrivateKeyData(const SealedKey& key,
                                           const std::shared_ptr<AuthenticationContext>& context) {
    const auto wrapping = platform::keyProcessorFor(key.wrappingPrivateKeyData)
                              .rebuildKey(key.wrappingPrivateKeyData, context);
    return platform::ecies::decrypt(key.wrappedPrivateKey, [&](ByteView ephemeralPoint) {
        return wrapping->agree(ephemeralPoint);
    });
}

platform::SoftwareKey unwrapPrivateKey(const SealedKey& key,
                                       const std::shared_ptr<AuthenticationContext>& context) {
    return unwrapPrivateKeyWithData(key, context).first;
}

std::pair<platform::SoftwareKey, platform::SecretBytes> unwrapPrivateKeyWithData(
    const SealedKey& key, const std::shared_ptr<AuthenticationContext>& context) {
    auto data = unwrapPrivateKeyData(key, context);
    auto software = platform::SoftwareKey::fromExternalRepresentation(key.keyType, data);
    return {std::move(software), std::move(data)};
}

Bytes signWithStoredKey(ByteView message, const KeyStorage& storage,
                        platform::SignatureAlgorithm algorithm) {
    const auto context = std::make_shared<AuthenticationContext>();
    const auto [handle, keyType] = keyHandle(storage, context);
    return handle.sign(algorithm, message);
}

}  // namespace keyloft::keys
