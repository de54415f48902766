#pragma once

#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/param_build.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstddef>
#include <memory>

#include "platform/crypto/openssl_key.hpp"

// Owning handles for every OpenSSL object the platform layer holds: the one place that says how
// each is freed.
namespace keyloft::platform::openssl {

template <auto Free>
struct Deleter {
    template <class T>
    void operator()(T* handle) const {
        Free(handle);
    }
};

// Pkey: openssl_key.hpp, for headers that hold a key.
using PkeyContext = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX_free>>;
using MdContext = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>>;
using Cipher = std::unique_ptr<EVP_CIPHER, Deleter<EVP_CIPHER_free>>;
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, Deleter<EVP_CIPHER_CTX_free>>;
using Kdf = std::unique_ptr<EVP_KDF, Deleter<EVP_KDF_free>>;
using KdfContext = std::unique_ptr<EVP_KDF_CTX, Deleter<EVP_KDF_CTX_free>>;
// Numbers may hold private scalars: cleared before they are freed.
using Bignum = std::unique_ptr<BIGNUM, Deleter<BN_clear_free>>;
using ParamBuilder = std::unique_ptr<OSSL_PARAM_BLD, Deleter<OSSL_PARAM_BLD_free>>;
using Params = std::unique_ptr<OSSL_PARAM, Deleter<OSSL_PARAM_free>>;
using Provider = std::unique_ptr<OSSL_PROVIDER, Deleter<OSSL_PROVIDER_unload>>;
using EcGroup = std::unique_ptr<EC_GROUP, Deleter<EC_GROUP_free>>;
using EcPoint = std::unique_ptr<EC_POINT, Deleter<EC_POINT_free>>;
using EcdsaSignature = std::unique_ptr<ECDSA_SIG, Deleter<ECDSA_SIG_free>>;
using X509Certificate = std::unique_ptr<X509, Deleter<X509_free>>;
using GeneralNames = std::unique_ptr<GENERAL_NAMES, Deleter<GENERAL_NAMES_free>>;
using Pkcs12 = std::unique_ptr<PKCS12, Deleter<PKCS12_free>>;
using Pkcs8 = std::unique_ptr<PKCS8_PRIV_KEY_INFO, Deleter<PKCS8_PRIV_KEY_INFO_free>>;

// Buffers OpenSSL allocated for the caller (i2d_* output and the like).
inline void freeBuffer(unsigned char* buffer) {
    OPENSSL_free(buffer);
}
using Buffer = std::unique_ptr<unsigned char, Deleter<freeBuffer>>;

// Buffers holding a secret (private-key DER): cleared, at the size they were filled to, before
// they are freed.
struct ClearFree {
    std::size_t size = 0;
    void operator()(unsigned char* buffer) const { OPENSSL_clear_free(buffer, size); }
};
using SecretBuffer = std::unique_ptr<unsigned char, ClearFree>;

// Stacks free their elements with them.
inline void freeAuthenticatedSafes(STACK_OF(PKCS7) * safes) {
    sk_PKCS7_pop_free(safes, PKCS7_free);
}
inline void freeSafeBags(STACK_OF(PKCS12_SAFEBAG) * bags) {
    sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
}
using AuthenticatedSafes = std::unique_ptr<STACK_OF(PKCS7), Deleter<freeAuthenticatedSafes>>;
using SafeBags = std::unique_ptr<STACK_OF(PKCS12_SAFEBAG), Deleter<freeSafeBags>>;

}  // namespace keyloft::platform::openssl
