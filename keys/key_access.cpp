#include "keys/key_access.hpp"

#include <algorithm>

#include "base/error.hpp"
#include "platform/key_service/ecies.hpp"

namespace keyloft::keys {

std::unique_ptr<platform::key_service::PrivateKey> privateKey(
    const KeyStorage& storage, const std::shared_ptr<AuthenticationContext>& context) {
    if (storage.boundKey) {
        const auto& record = *storage.boundKey;
        // An unprotected key never sees the caller's context.
        auto passed = record.biometryProtection == BiometryProtection::on ? context : nullptr;
        return platform::key_processor::keyProcessorFor(record.keyData)
            .rebuildKey(record.keyData, std::move(passed));
    }
    if (storage.sealedKey) {
        return std::make_unique<platform::key_service::SoftwareKey>(
            unwrapPrivateKey(*storage.sealedKey, context));
    }
    throw storedKeyNotFound();
}

void requireKeyOfHash(const platform::key_service::PrivateKey& key, ByteView publicKeyHash) {
    if (!std::ranges::equal(key.applicationLabel(), publicKeyHash)) throw storedKeyOfAnotherHash();
}

Protection protectionOf(const KeyStorage& storage) {
    if (storage.boundKey) return {storage.boundKey->biometryProtection, false};
    if (storage.sealedKey) return {storage.sealedKey->biometryProtection, true};
    throw storedKeyNotFound();
}

platform::crypto::SecretBytes unwrapPrivateKeyData(
    const SealedKey& key, const std::shared_ptr<AuthenticationContext>& context) {
    const auto wrapping = platform::key_processor::keyProcessorFor(key.wrappingPrivateKeyData)
                              .rebuildKey(key.wrappingPrivateKeyData, context);
    return platform::key_service::ecies::decrypt(
        key.wrappedPrivateKey,
        [&](ByteView ephemeralPoint) { return wrapping->agree(ephemeralPoint); });
}

platform::key_service::SoftwareKey unwrapPrivateKey(
    const SealedKey& key, const std::shared_ptr<AuthenticationContext>& context) {
    return unwrapPrivateKeyWithData(key, context).first;
}

std::pair<platform::key_service::SoftwareKey, platform::crypto::SecretBytes>
unwrapPrivateKeyWithData(const SealedKey& key,
                         const std::shared_ptr<AuthenticationContext>& context) {
    auto data = unwrapPrivateKeyData(key, context);
    auto software =
        platform::key_service::SoftwareKey::fromExternalRepresentation(key.keyType, data);
    return {std::move(software), std::move(data)};
}

}  // namespace keyloft::keys
