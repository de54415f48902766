#pragma once

#include <memory>

// OpenSSL's key object (EVP_PKEY), named by its tag so that a header holding a key does not bring
// OpenSSL's headers to everyone who includes it.
struct evp_pkey_st;

namespace keyloft::platform::openssl {

struct PkeyFree {
    void operator()(evp_pkey_st* key) const noexcept;
};
using Pkey = std::unique_ptr<evp_pkey_st, PkeyFree>;

}  // namespace keyloft::platform::openssl
