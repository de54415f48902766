#include "platform/pkcs12_import/pkcs12_reader.hpp"

#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <algorithm>

#include "platform/crypto/legacy_provider.hpp"
#include "platform/crypto/openssl_handles.hpp"
#include "platform/crypto/secret.hpp"

namespace keyloft::platform::pkcs12_import {
namespace {

using openssl::Pkcs12;
using openssl::Pkcs8;
using X509Handle = openssl::X509Certificate;
using AuthSafes = openssl::AuthenticatedSafes;
using Bags = openssl::SafeBags;

struct FoundKey {
    openssl::Pkey key;
    std::optional<Bytes> localKeyId;
};
struct FoundCertificate {
    X509Handle certificate;
    std::optional<Bytes> localKeyId;
};

struct Contents {
    std::vector<FoundKey> keys;
    std::vector<FoundCertificate> certificates;
};

std::optional<Bytes> localKeyIdOf(const PKCS12_SAFEBAG* bag) {
    const ASN1_TYPE* attribute = PKCS12_SAFEBAG_get0_attr(bag, NID_localKeyID);
    if (attribute == nullptr || attribute->type != V_ASN1_OCTET_STRING) return std::nullopt;
    const auto* value = attribute->value.octet_string;
    return Bytes(ASN1_STRING_get0_data(value),
                 ASN1_STRING_get0_data(value) + ASN1_STRING_length(value));
}

void collect(const STACK_OF(PKCS12_SAFEBAG) * bags, const char* password, int passwordLength,
             Contents& contents, int depth = 0) {
    for (int i = 0; i < sk_PKCS12_SAFEBAG_num(bags); ++i) {
        const PKCS12_SAFEBAG* bag = sk_PKCS12_SAFEBAG_value(bags, i);
        switch (PKCS12_SAFEBAG_get_nid(bag)) {
            case NID_keyBag:
                contents.keys.push_back(
                    {openssl::Pkey(EVP_PKCS82PKEY(PKCS12_SAFEBAG_get0_p8inf(bag))),
                     localKeyIdOf(bag)});
                break;
            case NID_pkcs8ShroudedKeyBag: {
                const Pkcs8 info(PKCS12_decrypt_skey(bag, password, passwordLength));
                if (info)
                    contents.keys.push_back(
                        {openssl::Pkey(EVP_PKCS82PKEY(info.get())), localKeyIdOf(bag)});
                break;
            }
            case NID_certBag:
                if (PKCS12_SAFEBAG_get_bag_nid(bag) == NID_x509Certificate) {
                    contents.certificates.push_back(
                        {X509Handle(PKCS12_SAFEBAG_get1_cert(bag)), localKeyIdOf(bag)});
                }
                break;
            case NID_safeContentsBag:
                if (depth < 8)
                    collect(PKCS12_SAFEBAG_get0_safes(bag), password, passwordLength, contents,
                            depth + 1);
                break;
            default:
                break;
        }
    }
}

Bytes derOf(X509* certificate) {
    unsigned char* raw = nullptr;
    const int size = i2d_X509(certificate, &raw);
    const openssl::Buffer der(raw);
    return {der.get(), der.get() + std::max(size, 0)};
}

// By localKeyId first, else the certificate holding the key's public key.
X509* certificateFor(const FoundKey& key, const Contents& contents) {
    if (key.localKeyId) {
        for (const auto& candidate : contents.certificates) {
            if (candidate.localKeyId == key.localKeyId && candidate.certificate)
                return candidate.certificate.get();
        }
    }
    for (const auto& candidate : contents.certificates) {
        if (candidate.certificate &&
            EVP_PKEY_eq(X509_get0_pubkey(candidate.certificate.get()), key.key.get()) == 1) {
            return candidate.certificate.get();
        }
    }
    return nullptr;
}

}  // namespace

std::optional<std::vector<ImportedIdentity>> readPkcs12Identities(ByteView file,
                                                                  std::string_view password) {
    crypto::loadLegacyProvider();
    const unsigned char* cursor = file.data();
    const Pkcs12 pkcs12(d2i_PKCS12(nullptr, &cursor, static_cast<long>(file.size())));
    if (!pkcs12) return std::nullopt;

    // OpenSSL reads the password as C text: a terminated copy, in storage wiped however this ends.
    crypto::SecretText text = crypto::secretTextOf(password);
    text.push_back('\0');
    // An empty password may have been applied as no password at all, as OpenSSL's tools do.
    const char* pass = text.data();
    if (PKCS12_mac_present(pkcs12.get()) == 1 &&
        PKCS12_verify_mac(pkcs12.get(), pass, static_cast<int>(password.size())) != 1) {
        if (!password.empty() || PKCS12_verify_mac(pkcs12.get(), nullptr, 0) != 1)
            return std::nullopt;
        pass = nullptr;
    }
    const int passLength = pass == nullptr ? 0 : static_cast<int>(password.size());

    const AuthSafes safes(PKCS12_unpack_authsafes(pkcs12.get()));
    if (!safes) return std::nullopt;
    Contents contents;
    for (int i = 0; i < sk_PKCS7_num(safes.get()); ++i) {
        PKCS7* safe = sk_PKCS7_value(safes.get(), i);
        Bags bags;
        switch (OBJ_obj2nid(safe->type)) {
            case NID_pkcs7_data:
                bags.reset(PKCS12_unpack_p7data(safe));
                break;
            case NID_pkcs7_encrypted:
                bags.reset(PKCS12_unpack_p7encdata(safe, pass, passLength));
                break;
            default:
                break;
        }
        if (bags) collect(bags.get(), pass, passLength, contents);
    }

    std::vector<ImportedIdentity> identities;
    for (auto& found : contents.keys) {
        if (!found.key) continue;
        X509* certificate = certificateFor(found, contents);
        if (certificate == nullptr) continue;
        identities.push_back(
            {derOf(certificate), key_service::SoftwareKey::adopt(std::move(found.key))});
    }
    return identities;
}

}  // namespace keyloft::platform::pkcs12_import
