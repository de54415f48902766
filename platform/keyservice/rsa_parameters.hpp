#pragma once

#include <cstddef>

#include "keyloft/bytes.hpp"
#include "platform/crypto/digest.hpp"

namespace keyloft::platform {

// RSASSA-PSS over a digest the caller computed with `hash`.
struct RsaPssParameters {
    DigestAlgorithm hash;
    DigestAlgorithm mgf1Hash;
    std::size_t saltLength;
};

struct RsaOaepParameters {
    DigestAlgorithm hash;
    DigestAlgorithm mgf1Hash;
    Bytes label;
};

}  // namespace keyloft::platform
