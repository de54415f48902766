#pragma once

#include <span>

#include "pkcs11/token_objects.hpp"
#include "platform/crypto/secret.hpp"

namespace keyloft::pkcs11 {

// The session object holding a derived secret, shaped by the application's template: its class
// must be a secret key, CKA_VALUE_LEN may shorten the secret, and a token object is refused with
// the given return value (the card keeps no secret keys). Throws CryptokiError.
TokenObject derivedSecretObject(const platform::crypto::SecretBytes& secret,
                                std::span<const CK_ATTRIBUTE> keyTemplate,
                                CK_RV tokenObjectRefusal);

}  // namespace keyloft::pkcs11
