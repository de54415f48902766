#include "platform/crypto/secret.hpp"

#include <openssl/crypto.h>

namespace keyloft::platform::crypto {

void wipe(void* data, std::size_t size) noexcept {
    if (data != nullptr && size != 0) OPENSSL_cleanse(data, size);
}

}  // namespace keyloft::platform::crypto
