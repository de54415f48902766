#pragma once

#include <string>
#include <string_view>

#include "base/bytes.hpp"

namespace keyloft {

// The key service's key-type identifiers, as stored in sealed-key records and shown in messages.
inline constexpr std::string_view keyTypeEC = "ec";
inline constexpr std::string_view keyTypeRSA = "rsa";

// What the key service reports of a public key.
struct PublicKeyAttributes {
    std::string keyType;           // keyTypeEC, keyTypeRSA or another identifier
    int sizeInBits = 0;            // 256/384/521 for EC, the modulus size for RSA
    Bytes externalRepresentation;  // EC: 0x04 || X || Y; RSA: DER RSAPublicKey (PKCS#1)
};

}  // namespace keyloft
