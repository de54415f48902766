#include "platform/crypto/block_cipher.hpp"

#include <openssl/core_names.h>
#include <openssl/err.h>

#include <limits>

#include "platform/crypto/legacy_provider.hpp"
#include "platform/crypto/openssl_handles.hpp"

namespace keyloft::platform::crypto {
namespace {

using openssl::Cipher;

constexpr int noReason = -1;
constexpr std::size_t blockSize = 8;

// Status codes: the reason code of OpenSSL's error when there is one, else -1.
int failure() {
    const auto code = ERR_get_error();
    ERR_clear_error();
    return code != 0 ? static_cast<int>(ERR_GET_REASON(code)) : noReason;
}

// Sets the key length (and for RC2 the effective key bits) before the key itself is given, so
// that OpenSSL never reads more key or IV bytes than the caller has.
bool configure(EVP_CIPHER_CTX* context, BlockCipher cipher, ByteView key, ByteView iv) {
    if (EVP_CIPHER_CTX_set_key_length(context, static_cast<int>(key.size())) != 1) return false;
    if (iv.size() != static_cast<std::size_t>(EVP_CIPHER_CTX_get_iv_length(context))) return false;
    if (cipher != BlockCipher::rc2) return true;
    unsigned int bits = static_cast<unsigned int>(key.size() * 8);
    const OSSL_PARAM params[] = {OSSL_PARAM_construct_uint(OSSL_CIPHER_PARAM_RC2_KEYBITS, &bits),
                                 OSSL_PARAM_construct_end()};
    return EVP_CIPHER_CTX_set_params(context, params) == 1;
}

}  // namespace

CipherResult encryptCbc(BlockCipher cipher, ByteView key, ByteView iv, ByteView plaintext) {
    loadLegacyProvider();
    ERR_clear_error();
    if (key.size() > std::numeric_limits<int>::max() / 8 ||
        plaintext.size() > std::numeric_limits<int>::max() - blockSize) {
        return {noReason, {}};
    }
    const Cipher algorithm(EVP_CIPHER_fetch(
        nullptr, cipher == BlockCipher::rc2 ? "RC2-CBC" : "DES-EDE3-CBC", nullptr));
    const openssl::CipherContext context(EVP_CIPHER_CTX_new());
    if (!algorithm || !context ||
        EVP_EncryptInit_ex2(context.get(), algorithm.get(), nullptr, nullptr, nullptr) != 1 ||
        !configure(context.get(), cipher, key, iv) ||
        EVP_EncryptInit_ex2(context.get(), nullptr, key.data(), iv.data(), nullptr) != 1) {
        return {failure(), {}};
    }
    Bytes out(plaintext.size() + blockSize);
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

}  // namespace keyloft::platform::crypto
