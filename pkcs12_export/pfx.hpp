#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "base/bytes.hpp"
#include "platform/crypto/secret.hpp"

namespace keyloft::pkcs12_export {

inline constexpr std::uint32_t exportIterations = 2048;

// A private key taken out of its wrapping for the export.
struct UnwrappedKey {
    std::string keyType;  // "ec" or "rsa"
    int sizeInBits = 0;
    platform::crypto::SecretBytes
        externalRepresentation;  // EC 0x04 || X || Y || K; RSA DER RSAPrivateKey
};
using Unwrap = std::function<UnwrappedKey()>;

// DER PrivateKeyInfo of the key. Throws "unsupported public key EC key size: <n>",
// "unsupported public key type: <type>" or "failed to copy public key".
platform::crypto::SecretBytes privateKeyInfo(const UnwrappedKey& key);

// A PFX (version 3): the certificate in an RC2-40 encrypted bag, the key in a 3DES shrouded bag,
// both with localKeyId = the public-key hash, and an HMAC-SHA1 MAC; three fresh 8-byte salts.
// The key is unwrapped only after the certificate part is built.
Bytes buildPKCS12(std::string_view password, ByteView certificate, ByteView pubKeyHash,
                  std::uint32_t iterations, const Unwrap& unwrap);

}  // namespace keyloft::pkcs12_export
