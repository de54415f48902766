#include "platform/key_service/signature_check.hpp"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <functional>

#include "base/error.hpp"
#include "base/public_key_attributes.hpp"
#include "platform/crypto/message_digest.hpp"
#include "platform/key_service/ec_key_builder.hpp"

namespace keyloft::platform::key_service {
namespace {

// The key's context is made from the key itself, never through an application's default engine.
bool verifyWith(EVP_PKEY* key, ByteView input, ByteView signature,
                const std::function<bool(EVP_PKEY_CTX*)>& configure) {
    openssl::PkeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    return context && EVP_PKEY_verify_init(context.get()) == 1 && configure(context.get()) &&
           EVP_PKEY_verify(context.get(), signature.data(), signature.size(), input.data(),
                           input.size()) == 1;
}

}  // namespace

SignatureCheck::SignatureCheck(std::string_view keyType, ByteView publicKeyData) {
    if (keyType == keyTypeEC) {
        const int sizeInBits = ecSizeForPointLength(publicKeyData.size());
        if (sizeInBits != 0 && publicKeyData[0] == 0x04)
            key_ = ecPublicKeyFromPoint(sizeInBits, publicKeyData);
        fieldBytes_ = static_cast<std::size_t>(fieldBytes(sizeInBits));
    } else if (keyType == keyTypeRSA) {
        const unsigned char* cursor = publicKeyData.data();
        key_.reset(
            d2i_PublicKey(EVP_PKEY_RSA, nullptr, &cursor, static_cast<long>(publicKeyData.size())));
    }
    if (!key_) throw PlatformError("the public key cannot check signatures");
}

bool SignatureCheck::ecdsa(ByteView digest, ByteView rawSignature) const {
    if (fieldBytes_ == 0 || rawSignature.size() != 2 * fieldBytes_) return false;
    const int half = static_cast<int>(fieldBytes_);
    const openssl::EcdsaSignature signature(ECDSA_SIG_new());
    openssl::Bignum r(BN_bin2bn(rawSignature.data(), half, nullptr));
    openssl::Bignum s(BN_bin2bn(rawSignature.data() + half, half, nullptr));
    if (!signature || !r || !s || ECDSA_SIG_set0(signature.get(), r.get(), s.get()) != 1)
        return false;
    // The signature owns the numbers now.
    (void)r.release();
    (void)s.release();
    unsigned char* rawDer = nullptr;
    const int size = i2d_ECDSA_SIG(signature.get(), &rawDer);
    const openssl::Buffer der(rawDer);
    if (size <= 0) return false;
    return verifyWith(key_.get(), digest, ByteView(der.get(), static_cast<std::size_t>(size)),
                      [](EVP_PKEY_CTX*) { return true; });
}

bool SignatureCheck::rsaPkcs1(ByteView block, ByteView signature) const {
    return verifyWith(key_.get(), block, signature, [](EVP_PKEY_CTX* context) {
        return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) == 1;
    });
}

bool SignatureCheck::rsaPss(ByteView digest, ByteView signature,
                            const RsaPssParameters& parameters) const {
    return verifyWith(key_.get(), digest, signature, [&](EVP_PKEY_CTX* context) {
        return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) == 1 &&
               EVP_PKEY_CTX_set_signature_md(context, crypto::messageDigest(parameters.hash)) ==
                   1 &&
               EVP_PKEY_CTX_set_rsa_mgf1_md(context, crypto::messageDigest(parameters.mgf1Hash)) ==
                   1 &&
               EVP_PKEY_CTX_set_rsa_pss_saltlen(context, static_cast<int>(parameters.saltLength)) ==
                   1;
    });
}

}  // namespace keyloft::platform::key_service
