#include "pubkey/ssh_public_key.hpp"

#include "base/error.hpp"
#include "pubkey/ssh_wire.hpp"

namespace keyloft::pubkey {

Bytes sshPublicKeyBlob(const PublicKeyAttributes& publicKey) {
    if (publicKey.externalRepresentation.empty())
        throw KeyloftError::generic("key has invalid public key data");
    const auto key = platform::key_service::PublicKey::fromData(publicKey.keyType,
                                                                publicKey.externalRepresentation);
    Bytes blob;
    if (publicKey.keyType == keyTypeEC) {
        const std::string curve = sshCurveName(key);
        const Bytes point = key.externalRepresentation();
        appendString(blob, fidoEcdsaKeyTypeName);
        appendString(blob, curve);
        appendData(blob, point);
        appendString(blob, fidoApplication);
    } else if (publicKey.keyType == keyTypeRSA) {
        const auto numbers = key.rsaNumbers();
        appendString(blob, "ssh-rsa");
        appendMPInt(blob, numbers.exponent);
        appendMPInt(blob, numbers.modulus);
    } else {
        throw KeyloftError::generic("unsupported key type: " + publicKey.keyType);
    }
    return blob;
}

std::string sshCurveName(const platform::key_service::PublicKey& key) {
    const auto attributes = key.attributes();
    if (!attributes) throw KeyloftError::generic("failed to copy attributes from public key");
    switch (attributes->sizeInBits) {
        case 256:
            return "nistp256";
        case 384:
            return "nistp384";
        default:
            return "nistp521";
    }
}

}  // namespace keyloft::pubkey
