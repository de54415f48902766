#pragma once

#include <openssl/evp.h>

#include <string>

#include "platform/crypto/digest.hpp"

namespace keyloft::testing {

// OpenSSL's digest, named here rather than taken from the code under test.
inline const EVP_MD* opensslDigest(platform::crypto::DigestAlgorithm algorithm) {
    switch (algorithm) {
        case platform::crypto::DigestAlgorithm::sha1:
            return EVP_sha1();
        case platform::crypto::DigestAlgorithm::sha224:
            return EVP_sha224();
        case platform::crypto::DigestAlgorithm::sha256:
            return EVP_sha256();
        case platform::crypto::DigestAlgorithm::sha384:
            return EVP_sha384();
        case platform::crypto::DigestAlgorithm::sha512:
            return EVP_sha512();
    }
    return nullptr;
}

// For test names.
inline std::string digestName(platform::crypto::DigestAlgorithm algorithm) {
    return EVP_MD_get0_name(opensslDigest(algorithm));
}

}  // namespace keyloft::testing
