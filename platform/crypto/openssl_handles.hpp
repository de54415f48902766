#pragma once

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/param_build.h>

#include <memory>

// Owning handles for the OpenSSL objects the platform layer uses.
namespace keyloft::platform::openssl {

template <auto Free>
struct Deleter {
    template <class T>
    void operator()(T* handle) const {
        Free(handle);
    }
};

using Pkey = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using PkeyContext = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX_free>>;
using MdContext = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>>;
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, Deleter<EVP_CIPHER_CTX_free>>;
using Kdf = std::unique_ptr<EVP_KDF, Deleter<EVP_KDF_free>>;
using KdfContext = std::unique_ptr<EVP_KDF_CTX, Deleter<EVP_KDF_CTX_free>>;
using Bignum = std::unique_ptr<BIGNUM, Deleter<BN_clear_free>>;
using ParamBuilder = std::unique_ptr<OSSL_PARAM_BLD, Deleter<OSSL_PARAM_BLD_free>>;
using Params = std::unique_ptr<OSSL_PARAM, Deleter<OSSL_PARAM_free>>;

}  // namespace keyloft::platform::openssl
