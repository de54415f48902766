#pragma once

#include <cstddef>

#include "base/bytes.hpp"
#include "platform/crypto/digest.hpp"

namespace keyloft::platform::key_service {

// RSASSA-PSS over a digest the caller computed with `hash`.
struct RsaPssParameters {
    crypto::DigestAlgorithm hash;
    crypto::DigestAlgorithm mgf1Hash;
    std::size_t saltLength;
};

struct RsaOaepParameters {
    crypto::DigestAlgorithm hash;
    crypto::DigestAlgorithm mgf1Hash;
    Bytes label;
};

}  // namespace keyloft::platform::key_service
