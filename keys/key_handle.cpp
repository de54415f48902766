#include "keys/key_handle.hpp"

#include "keyloft/error.hpp"
#include "platform/crypto/digest.hpp"

namespace keyloft::keys {

const platform::ProcessorKey* KeyHandle::processorKey() const {
    const auto* key = std::get_if<std::unique_ptr<platform::ProcessorKey>>(&key_);
    return key != nullptr ? key->get() : nullptr;
}

std::string KeyHandle::keyType() const {
    return softwareKey() != nullptr ? softwareKey()->keyType() : std::string(platform::keyTypeEC);
}

platform::PublicKeyAttributes KeyHandle::publicKeyAttributes() const {
    return softwareKey() != nullptr ? softwareKey()->publicKeyAttributes()
                                    : processorKey()->publicKeyAttributes();
}

Bytes KeyHandle::applicationLabel() const {
    return platform::sha1(publicKeyAttributes().externalRepresentation);
}

Bytes KeyHandle::sign(platform::SignatureAlgorithm algorithm, ByteView message) const {
    return softwareKey() != nullptr ? softwareKey()->sign(algorithm, message)
                                    : processorKey()->sign(algorithm, message);
}

platform::SecretBytes KeyHandle::agree(ByteView peerPoint) const {
    return softwareKey() != nullptr ? softwareKey()->agree(peerPoint)
                                    : processorKey()->agree(peerPoint);
}

const platform::SoftwareKey& KeyHandle::rsaKey() const {
    if (softwareKey() == nullptr) throw PlatformError("the key processor holds no RSA keys");
    return *softwareKey();
}

Bytes KeyHandle::signRsaPss(ByteView digest, const platform::RsaPssParameters& parameters) const {
    return rsaKey().signRsaPss(digest, parameters);
}

platform::SecretBytes KeyHandle::decryptRsaOaep(
    ByteView ciphertext, const platform::RsaOaepParameters& parameters) const {
    return rsaKey().decryptRsaOaep(ciphertext, parameters);
}

}  // namespace keyloft::keys
