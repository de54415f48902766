#include "platform/key_service/private_key.hpp"

#include "base/error.hpp"
#include "platform/crypto/digest.hpp"

namespace keyloft::platform::key_service {

Bytes PrivateKey::applicationLabel() const {
    return crypto::sha1(publicKeyAttributes().externalRepresentation);
}

Bytes PrivateKey::signRsaPss(ByteView /*digest*/, const RsaPssParameters& /*parameters*/) const {
    throw PlatformError("the key processor holds no RSA keys");
}

crypto::SecretBytes PrivateKey::decryptRsaOaep(ByteView /*ciphertext*/,
                                               const RsaOaepParameters& /*parameters*/) const {
    throw PlatformError("the key processor holds no RSA keys");
}

}  // namespace keyloft::platform::key_service
