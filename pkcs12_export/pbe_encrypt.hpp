#pragma once

#include <cstdint>
#include <string_view>

#include "base/bytes.hpp"
#include "platform/crypto/block_cipher.hpp"

namespace keyloft::pkcs12_export {

// PKCS#12 password-based encryption: key (ID 1) and IV (ID 2) derived from the password and salt,
// then CBC with PKCS#7 padding. Throws "Failed to generate RC2 key", "Failed to generate RC2 iv" or
// "Algorithm: <code> encrypt failed with status: <status>".
Bytes pbeEncrypt(ByteView plaintext, std::string_view password, ByteView salt,
                 std::uint32_t iterations, int keyLengthInBits,
                 platform::crypto::BlockCipher cipher, std::size_t ivLength);

}  // namespace keyloft::pkcs12_export
