#pragma once

#include <string_view>

#include "der/record.hpp"

namespace keyloft::der {

// The AlgorithmIdentifier of a public key, as certificates and PKCS#8 carry it: id-ecPublicKey
// with the named curve of the size, or rsaEncryption with NULL parameters. Throws the tool's
// "unsupported public key EC key size: <n>" for an EC size without a curve identifier and
// "unsupported public key type: <type>" for other key types.
Record publicKeyAlgorithm(std::string_view keyType, int sizeInBits);

}  // namespace keyloft::der
