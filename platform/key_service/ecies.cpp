#include "platform/key_service/ecies.hpp"

#include <openssl/core_names.h>

#include "base/error.hpp"
#include "platform/crypto/openssl_handles.hpp"
#include "platform/key_service/software_key.hpp"

namespace keyloft::platform::key_service::ecies {
namespace {

constexpr std::size_t aesKeySize = 16;
constexpr std::size_t ivSize = 16;

// 32 bytes: the AES-128 key, then the IV.
crypto::SecretBytes deriveKeyAndIv(ByteView sharedSecret, ByteView ephemeralPoint) {
    const openssl::Kdf kdf(EVP_KDF_fetch(nullptr, "X963KDF", nullptr));
    const openssl::KdfContext context(kdf ? EVP_KDF_CTX_new(kdf.get()) : nullptr);
    if (!context) throw PlatformError("X9.63 key derivation is not available");
    char digest[] = "SHA256";
    const OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY,
                                          const_cast<std::uint8_t*>(sharedSecret.data()),
                                          sharedSecret.size()),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO,
                                          const_cast<std::uint8_t*>(ephemeralPoint.data()),
                                          ephemeralPoint.size()),
        OSSL_PARAM_construct_end()};
    crypto::SecretBytes out(aesKeySize + ivSize);
    if (EVP_KDF_derive(context.get(), out.data(), out.size(), params) != 1) {
        throw PlatformError("key derivation failed");
    }
    return out;
}

openssl::CipherContext gcmContext(const crypto::SecretBytes& keyAndIv, bool encrypting) {
    openssl::CipherContext context(EVP_CIPHER_CTX_new());
    if (!context ||
        EVP_CipherInit_ex(context.get(), EVP_aes_128_gcm(), nullptr, nullptr, nullptr,
                          encrypting ? 1 : 0) != 1 ||
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(ivSize),
                            nullptr) != 1 ||
        EVP_CipherInit_ex(context.get(), nullptr, nullptr, keyAndIv.data(),
                          keyAndIv.data() + aesKeySize, encrypting ? 1 : 0) != 1) {
        throw PlatformError("AES-GCM is not available");
    }
    return context;
}

}  // namespace

Bytes encrypt(ByteView recipientPoint, ByteView plaintext) {
    const auto ephemeral = SoftwareKey::generateEC(256);
    const Bytes ephemeralPoint = ephemeral.publicKeyAttributes().externalRepresentation;
    const auto keyAndIv = deriveKeyAndIv(ephemeral.agree(recipientPoint), ephemeralPoint);
    const auto context = gcmContext(keyAndIv, true);

    Bytes out(ephemeralPoint);
    out.resize(pointSize + plaintext.size() + tagSize);
    int written = 0;
    int finalWritten = 0;
    if (EVP_EncryptUpdate(context.get(), out.data() + pointSize, &written, plaintext.data(),
                          static_cast<int>(plaintext.size())) != 1 ||
        EVP_EncryptFinal_ex(context.get(), out.data() + pointSize + written, &finalWritten) != 1 ||
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(tagSize),
                            out.data() + pointSize + plaintext.size()) != 1) {
        throw PlatformError("encryption failed");
    }
    return out;
}

crypto::SecretBytes decrypt(ByteView ciphertext, const KeyAgreement& agree) {
    if (ciphertext.size() < pointSize + tagSize)
        throw PlatformError("wrapped key data is too short");
    const auto ephemeralPoint = ciphertext.first(pointSize);
    const auto body = ciphertext.subspan(pointSize, ciphertext.size() - pointSize - tagSize);
    Bytes tag(ciphertext.end() - static_cast<std::ptrdiff_t>(tagSize), ciphertext.end());
    const auto keyAndIv = deriveKeyAndIv(agree(ephemeralPoint), ephemeralPoint);
    const auto context = gcmContext(keyAndIv, false);

    crypto::SecretBytes plaintext(body.size() + 1);
    int written = 0;
    int finalWritten = 0;
    if (EVP_DecryptUpdate(context.get(), plaintext.data(), &written, body.data(),
                          static_cast<int>(body.size())) != 1 ||
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(tagSize),
                            tag.data()) != 1 ||
        EVP_DecryptFinal_ex(context.get(), plaintext.data() + written, &finalWritten) != 1) {
        throw PlatformError("failed to decrypt the wrapped key: authentication failed");
    }
    plaintext.resize(body.size());
    return plaintext;
}

}  // namespace keyloft::platform::key_service::ecies
