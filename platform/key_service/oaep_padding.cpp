#include "platform/key_service/oaep_padding.hpp"

#include <openssl/evp.h>
#include <openssl/rsa.h>

#include "platform/crypto/message_digest.hpp"
#include "platform/crypto/openssl_handles.hpp"

namespace keyloft::platform::key_service {

bool setOaepPadding(EVP_PKEY_CTX* context, const RsaOaepParameters& parameters) {
    if (EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_OAEP_PADDING) != 1 ||
        EVP_PKEY_CTX_set_rsa_oaep_md(context, crypto::messageDigest(parameters.hash)) != 1 ||
        EVP_PKEY_CTX_set_rsa_mgf1_md(context, crypto::messageDigest(parameters.mgf1Hash)) != 1)
        return false;
    const auto& label = parameters.label;
    if (label.empty()) return true;
    openssl::Buffer copy(static_cast<unsigned char*>(OPENSSL_memdup(label.data(), label.size())));
    if (!copy ||
        EVP_PKEY_CTX_set0_rsa_oaep_label(context, copy.get(), static_cast<int>(label.size())) != 1)
        return false;
    (void)copy.release();  // the context's now
    return true;
}

}  // namespace keyloft::platform::key_service
