#pragma once

#include <string>
#include <string_view>

#include "keyloft/bytes.hpp"

namespace keyloft::platform {

// The key service's key-type identifiers, as stored in sealed-key records and shown in messages.
inline constexpr std::string_view keyTypeEC = "ec";
inline constexpr std::string_view keyTypeRSA = "rsa";

// The name under which OpenSSL's provider makes EC keys from parameters. It is the algorithm's
// OID rather than "EC" on purpose: OpenSSL maps "EC" to its legacy key type, and an application
// that made a PKCS#11 engine its default (openssl -engine, engine-based openssl.cnf) would then
// receive our key creation, which engines cannot do.
inline constexpr const char* ecKeyManagementName = "1.2.840.10045.2.1";

// What the key service reports of a public key.
struct PublicKeyAttributes {
    std::string keyType;           // keyTypeEC, keyTypeRSA or another identifier
    int sizeInBits = 0;            // 256/384/521 for EC, the modulus size for RSA
    Bytes externalRepresentation;  // EC: 0x04 || X || Y; RSA: DER RSAPublicKey (PKCS#1)
};

}  // namespace keyloft::platform
