#pragma once

#include <optional>

#include "base/bytes.hpp"
#include "platform/key_service/rsa_parameters.hpp"

namespace keyloft::platform::key_service {

// Encrypts with an RSA public key as the card publishes it (a DER RSAPublicKey): RSAES-OAEP with
// the parameters, or RSAES-PKCS1-v1_5 without. PlatformError for a key that is none, or a message
// too long for the key and padding.
Bytes encryptRsa(ByteView publicKeyData, ByteView message,
                 const std::optional<RsaOaepParameters>& oaep);

}  // namespace keyloft::platform::key_service
