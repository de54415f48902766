#include "pkcs12_export/pbe_encrypt.hpp"

#include "base/error.hpp"
#include "pkcs12_export/p12_pbe_gen.hpp"

namespace keyloft::pkcs12_export {

Bytes pbeEncrypt(ByteView plaintext, std::string_view password, ByteView salt,
                 std::uint32_t iterations, int keyLengthInBits,
                 platform::crypto::BlockCipher cipher, std::size_t ivLength) {
    const auto keyLength = static_cast<std::size_t>((keyLengthInBits + 7) / 8);
    const auto key =
        pbeKey(password, salt, iterations, PbeId::key, keyLength, "Failed to generate RC2 key");
    const auto iv =
        pbeKey(password, salt, iterations, PbeId::iv, ivLength, "Failed to generate RC2 iv");
    auto result = platform::crypto::encryptCbc(cipher, key, iv, plaintext);
    if (result.status != 0) {
        throw KeyloftError::generic(
            "Algorithm: " + std::to_string(static_cast<int>(cipher)) +
            " encrypt failed with status: " + std::to_string(result.status));
    }
    return std::move(result.output);
}

}  // namespace keyloft::pkcs12_export
