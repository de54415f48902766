#include "platform/crypto/openssl_key.hpp"

#include <openssl/evp.h>

namespace keyloft::platform::openssl {

void PkeyFree::operator()(EVP_PKEY* key) const noexcept {
    EVP_PKEY_free(key);
}

}  // namespace keyloft::platform::openssl
