#include "keys/key_creation.hpp"

#include <algorithm>

#include "base/error.hpp"
#include "keys/stored_key_codec.hpp"
#include "platform/crypto/digest.hpp"
#include "platform/key_service/ecies.hpp"

namespace keyloft::keys {
namespace {

BiometryProtection protectionFor(bool biometry) {
    return biometry ? BiometryProtection::on : BiometryProtection::off;
}

// A stored record, or one read in place.
template <class Storage>
bool storageReachesTpm(const Storage& storage) {
    const auto& [boundKey, sealedKey] = storage;
    return (boundKey && platform::key_processor::isTpmKey(boundKey->keyData)) ||
           (sealedKey && platform::key_processor::isTpmKey(sealedKey->wrappingPrivateKeyData));
}

// Wraps the key under a new processor-held P-256 wrapping key, handed back with the record.
std::pair<SealedKey, std::unique_ptr<platform::key_processor::ProcessorKey>> seal(
    const platform::key_service::SoftwareKey& key, bool biometry, bool cardHoldsTpmKeys) {
    const auto plaintext = key.externalRepresentation();
    SealedKey sealed{.keyType = key.keyType(), .biometryProtection = protectionFor(biometry)};
    try {
        sealed.pubKeyHash = key.applicationLabel();
    } catch (const PlatformError&) {
        throw KeyloftError::generic("failed to get private key attributes");
    }

    auto wrapping = platform::key_processor::defaultKeyProcessor(cardHoldsTpmKeys)
                        .createKey(256, accessControlFor(biometry));
    Bytes wrappingPoint;
    try {
        wrappingPoint = wrapping->publicKeyAttributes().externalRepresentation;
    } catch (const PlatformError&) {
        throw KeyloftError::generic("failed to get public key");
    }
    if (wrapping->objectIdentifier().empty())
        throw KeyloftError::generic("failed to get private key attributes");
    sealed.wrappingPrivateKeyData = wrapping->objectIdentifier();

    // The key service's own reason is not reported on this path.
    try {
        sealed.wrappedPrivateKey = platform::key_service::ecies::encrypt(wrappingPoint, plaintext);
    } catch (const PlatformError&) {
        throw KeyloftError::generic("failed to get key attributes");
    }
    return {std::move(sealed), std::move(wrapping)};
}

}  // namespace

bool reachesTpm(const KeyStorage& storage) {
    return storageReachesTpm(storage);
}

bool holdsTpmKeys(const StoredKeyMap& card) {
    return std::any_of(card.begin(), card.end(),
                       [](const auto& entry) { return storageReachesTpm(entry.second); });
}

bool holdsTpmKeys(const std::optional<Bytes>& configurationData) {
    bool found = false;
    readStoredKeys(configurationData, [&](ByteView /*hash*/, const KeyStorageView& storage) {
        found = found || storageReachesTpm(storage);
    });
    return found;
}

std::uint32_t accessControlFor(bool biometry) {
    return platform::key_processor::accessControlPrivateKeyUsage |
           (biometry ? platform::key_processor::accessControlBiometryAny : 0U);
}

NewKey generateKey(KeyType type, bool biometry, bool cardHoldsTpmKeys) {
    const auto [sizeInBits, inProcessor] = shapeOf(type);
    if (inProcessor) {
        auto key = platform::key_processor::defaultKeyProcessor(cardHoldsTpmKeys)
                       .createKey(sizeInBits, accessControlFor(biometry));
        KeyStorage storage{.boundKey = makeBoundKey(*key, biometry)};
        return NewKey{std::move(key), std::move(storage)};
    }
    auto key = std::make_unique<platform::key_service::SoftwareKey>(
        platform::key_processor::isRsaKeySize(sizeInBits)
            ? platform::key_service::SoftwareKey::generateRSA(sizeInBits)
            : platform::key_service::SoftwareKey::generateEC(sizeInBits));
    auto [sealed, wrapping] = seal(*key, biometry, cardHoldsTpmKeys);
    return NewKey{std::move(key), KeyStorage{.sealedKey = std::move(sealed)}, std::move(wrapping)};
}

BoundKey makeBoundKey(const platform::key_processor::ProcessorKey& key, bool biometry) {
    return {platform::crypto::sha1(key.publicKeyAttributes().externalRepresentation),
            key.objectIdentifier(), protectionFor(biometry)};
}

SealedKey makeSealedKey(const platform::key_service::SoftwareKey& key, bool biometry,
                        bool cardHoldsTpmKeys) {
    return seal(key, biometry, cardHoldsTpmKeys).first;
}

Bytes NewKey::sign(platform::key_service::SignatureAlgorithm algorithm, ByteView message) const {
    if (wrappingKey) wrappingKey->authorize();
    return key->sign(algorithm, message);
}

}  // namespace keyloft::keys
