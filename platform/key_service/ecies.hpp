#pragma once

#include <functional>

#include "base/bytes.hpp"
#include "platform/crypto/secret.hpp"

// The ECIES variant that wraps private keys: ECDH between a fresh ephemeral P-256 key and the
// wrapping key, ANSI X9.63 KDF with SHA-256 (shared info: the ephemeral public key), AES-128-GCM
// with the last 16 KDF bytes as IV. Ciphertext: ephemeral point || encrypted data || 16-byte tag.
namespace keyloft::platform::key_service::ecies {

inline constexpr std::size_t pointSize = 65;
inline constexpr std::size_t tagSize = 16;

Bytes encrypt(ByteView recipientPoint, ByteView plaintext);

// The key agreement is done by whoever holds the wrapping key: it receives the ephemeral point
// and answers the shared x-coordinate. Throws PlatformError when the ciphertext does not open.
using KeyAgreement = std::function<crypto::SecretBytes(ByteView ephemeralPoint)>;
crypto::SecretBytes decrypt(ByteView ciphertext, const KeyAgreement& agree);

}  // namespace keyloft::platform::key_service::ecies
