#include "platform/cipher/block_cipher.hpp"

#include <openssl/core_names.h>
#include <openssl/err.h>

#include "platform/cipher/legacy_provider.hpp"
#include "platform/crypto/openssl_handles.hpp"

namespace keyloft::platform {
namespace {

// Status codes: the OpenSSL error code when there is one, else -1.
int failure() {
    const auto code = ERR_get_error();
    ERR_clear_error();
    return code != 0 ? static_cast<int>(ERR_GET_REASON(code)) : -1;
}

}  // namespace

CipherResult encryptCbc(BlockCipher cipher, ByteView key, ByteView iv, ByteView plaintext) {
    loadLegacyProvider();
    const char* name = cipher == BlockCipher::rc2 ? "RC2-CBC" : "DES-EDE3-CBC";
    const std::unique_ptr<EVP_CIPHER, openssl::Deleter<EVP_CIPHER_free>> algorithm(
        EVP_CIPHER_fetch(nullptr, name, nullptr));
    const openssl::CipherContext context(EVP_CIPHER_CTX_new());
    if (!algorithm || !context ||
        EVP_EncryptInit_ex2(context.get(), algorithm.get(), nullptr, nullptr, nullptr) != 1) {
        return {failure(), {}};
    }
    if (cipher == BlockCipher::rc2) {
        unsigned int bits = static_cast<unsigned int>(key.size() * 8);
        const OSSL_PARAM params[] = {
            OSSL_PARAM_construct_uint(OSSL_CIPHER_PARAM_RC2_KEYBITS, &bits),
            OSSL_PARAM_construct_end()};
        if (EVP_CIPHER_CTX_set_key_length(context.get(), static_cast<int>(key.size())) != 1 ||
            EVP_CIPHER_CTX_set_params(context.get(), params) != 1) {
            return {failure(), {}};
        }
    }
    if (EVP_EncryptInit_ex2(context.get(), nullptr, key.data(), iv.data(), nullptr) != 1)
        return {failure(), {}};
    Bytes out(plaintext.size() + 8);
    int written = 0;
    int finalWritten = 0;
    if (EVP_EncryptUpdate(context.get(), out.data(), &written, plaintext.data(),
                          static_cast<int>(plaintext.size())) != 1 ||
        EVP_EncryptFinal_ex(context.get(), out.data() + written, &finalWritten) != 1) {
        return {failure(), {}};
    }
    out.resize(static_cast<std::size_t>(written + finalWritten));
    return {0, std::move(out)};
}

}  // namespace keyloft::platform
