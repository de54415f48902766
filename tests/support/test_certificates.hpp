#pragma once

// Real certificates for tests, made with OpenSSL independently of the tool's own builder.

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "base/bytes.hpp"

namespace keyloft::testing {

struct PkeyDeleter {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyDeleter>;

inline Pkey makeEcKey(const char* curve = "P-256") {
    return Pkey(EVP_EC_gen(curve));
}
inline Pkey makeRsaKey(unsigned bits = 2048) {
    return Pkey(EVP_RSA_gen(bits));
}

// A self-signed certificate for the key, valid from now - 1 day for the given number of days.
inline Bytes makeCertificate(EVP_PKEY* key, const std::string& commonName = "Test", long days = 365,
                             const std::string& email = "") {
    std::unique_ptr<X509, decltype(&X509_free)> x509(X509_new(), X509_free);
    X509_set_version(x509.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x509.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(x509.get()), -86400);
    X509_gmtime_adj(X509_getm_notAfter(x509.get()), days * 86400);
    X509_NAME* name = X509_get_subject_name(x509.get());
    if (!commonName.empty()) {
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(commonName.c_str()), -1,
                                   -1, 0);
    }
    if (!email.empty()) {
        X509_NAME_add_entry_by_txt(name, "emailAddress", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(email.c_str()), -1, -1,
                                   0);
    }
    X509_set_issuer_name(x509.get(), name);
    X509_set_pubkey(x509.get(), key);
    if (X509_sign(x509.get(), key, EVP_sha256()) == 0) throw std::runtime_error("X509_sign failed");
    unsigned char* der = nullptr;
    const int size = i2d_X509(x509.get(), &der);
    Bytes out(der, der + size);
    OPENSSL_free(der);
    return out;
}

}  // namespace keyloft::testing
