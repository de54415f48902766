#include "platform/key_service/rsa_encryption.hpp"

#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include "base/error.hpp"
#include "platform/crypto/openssl_handles.hpp"
#include "platform/key_service/oaep_padding.hpp"

namespace keyloft::platform::key_service {

Bytes encryptRsa(ByteView publicKeyData, ByteView message,
                 const std::optional<RsaOaepParameters>& oaep) {
    const unsigned char* cursor = publicKeyData.data();
    const openssl::Pkey key(
        d2i_PublicKey(EVP_PKEY_RSA, nullptr, &cursor, static_cast<long>(publicKeyData.size())));
    if (!key) throw PlatformError("encryption failed: no RSA public key");
    // The key's context is made from the key itself, never through an application's engine.
    const openssl::PkeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, key.get(), nullptr));
    bool ready = context && EVP_PKEY_encrypt_init(context.get()) == 1;
    if (ready) {
        ready = oaep ? setOaepPadding(context.get(), *oaep)
                     : EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1;
    }
    std::size_t size = 0;
    if (!ready ||
        EVP_PKEY_encrypt(context.get(), nullptr, &size, message.data(), message.size()) != 1)
        throw PlatformError("encryption failed");
    Bytes out(size);
    if (EVP_PKEY_encrypt(context.get(), out.data(), &size, message.data(), message.size()) != 1)
        throw PlatformError("encryption failed: the message is too long for the key");
    out.resize(size);
    return out;
}

}  // namespace keyloft::platform::key_service
