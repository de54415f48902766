#pragma once

#include <openssl/types.h>

#include "platform/crypto/digest.hpp"

namespace keyloft::platform::crypto {

// OpenSSL's description of the digest, for the key service's own use.
const EVP_MD* messageDigest(DigestAlgorithm algorithm);

}  // namespace keyloft::platform::crypto
