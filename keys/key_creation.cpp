#include "keys/key_creation.hpp"

#include "keyloft/error.hpp"
#include "platform/crypto/digest.hpp"
#include "platform/keyservice/ecies.hpp"

namespace keyloft::keys {
namespace {

BiometryProtection protectionFor(bool biometry) {
    return biometry ? BiometryProtection::on : BiometryProtection::off;
}

}  // namespace

std::uint32_t accessControlFor(bool biometry) {
    return platform::accessControlPrivateKeyUsage |
           (biometry ? platform::accessControlBiometryAny : 0U);
}

KeyHandle generateKey(KeyType type, bool biometry) {
    switch (type) {
        case KeyType::p256:
            return KeyHandle(platform::SoftwareKey::generateEC(256));
        case KeyType::p384:
            return KeyHandle(platform::SoftwareKey::generateEC(384));
        case KeyType::p521:
            return KeyHandle(platform::SoftwareKey::generateEC(521));
        case KeyType::p256ne:
            return KeyHandle(
                platform::defaultKeyProcessor().createKey(256, accessControlFor(biometry)));
        case KeyType::p384ne:
            return KeyHandle(
                platform::defaultKeyProcessor().createKey(384, accessControlFor(biometry)));
    }
    throw PlatformError("unsupported key type");
}

BastionKey makeBastionKey(const platform::ProcessorKey& key, bool biometry) {
    return {platform::sha1(key.publicKeyAttributes().externalRepresentation),
            key.objectIdentifier(), protectionFor(biometry)};
}

SealedKey makeSealedKey(const platform::SoftwareKey& key, bool biometry) {
    const auto plaintext = key.externalRepresentation();
    SealedKey sealed{.keyType = key.keyType(), .biometryProtection = protectionFor(biometry)};
    try {
        sealed.pubKeyHash = key.applicationLabel();
    } catch (const PlatformError&) {
        throw KeyloftError::generic("failed to get private key attributes");
    }

    const auto wrapping =
        platform::defaultKeyProcessor().createKey(256, accessControlFor(biometry));
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
        sealed.wrappedPrivateKey = platform::ecies::encrypt(wrappingPoint, plaintext);
    } catch (const PlatformError&) {
        throw KeyloftError::generic("failed to get key attributes");
    }
    return sealed;
}

}  // namespace keyloft::keys
