#include "platform/key_service/software_key.hpp"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <algorithm>
#include <limits>

#include "base/error.hpp"
#include "platform/crypto/digest.hpp"
#include "platform/crypto/message_digest.hpp"
#include "platform/crypto/openssl_handles.hpp"
#include "platform/key_service/ec_key_builder.hpp"
#include "platform/key_service/oaep_padding.hpp"

namespace keyloft::platform::key_service {
namespace {

Bytes encodedPublicPoint(EVP_PKEY* key) {
    unsigned char* raw = nullptr;
    const std::size_t size = EVP_PKEY_get1_encoded_public_key(key, &raw);
    const openssl::Buffer point(raw);
    if (size == 0) throw PlatformError("failed to read the public key");
    return {point.get(), point.get() + size};
}

struct AlgorithmUse {
    std::string_view keyType;
    const EVP_MD* digest;  // nullptr: the input is already the digest
};

AlgorithmUse useOf(SignatureAlgorithm algorithm) {
    switch (algorithm) {
        case SignatureAlgorithm::ecdsaSignatureMessageX962SHA384:
            return {keyTypeEC, EVP_sha384()};
        case SignatureAlgorithm::rsaSignatureMessagePKCS1v15SHA256:
            return {keyTypeRSA, EVP_sha256()};
        case SignatureAlgorithm::rsaSignatureMessagePKCS1v15SHA384:
            return {keyTypeRSA, EVP_sha384()};
        case SignatureAlgorithm::ecdsaSignatureDigestX962:
            return {keyTypeEC, nullptr};
        case SignatureAlgorithm::rsaSignatureDigestPKCS1v15Raw:
            return {keyTypeRSA, nullptr};
    }
    throw PlatformError("unknown signature algorithm");
}

// P-256, P-384 or P-521 by name: other curves of those sizes (secp256k1, brainpool) are not ours.
bool onSupportedCurve(EVP_PKEY* key) {
    const char* expected = curveNameForSize(EVP_PKEY_get_bits(key));
    char name[64] = {};
    return expected != nullptr &&
           EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, name, sizeof name,
                                          nullptr) == 1 &&
           OBJ_txt2nid(name) == EC_curve_nist2nid(expected);
}

// EVP_PKEY_sign over input that is already a digest, after configure(context) set the scheme.
template <class Configure>
Bytes signDigest(EVP_PKEY* key, ByteView digest, Configure configure) {
    openssl::PkeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    std::size_t size = 0;
    if (!context || EVP_PKEY_sign_init(context.get()) != 1 || !configure(context.get()) ||
        EVP_PKEY_sign(context.get(), nullptr, &size, digest.data(), digest.size()) != 1) {
        throw PlatformError("signing failed");
    }
    Bytes signature(size);
    if (EVP_PKEY_sign(context.get(), signature.data(), &size, digest.data(), digest.size()) != 1)
        throw PlatformError("signing failed");
    signature.resize(size);
    return signature;
}

template <class Encoder>
crypto::SecretBytes derOf(EVP_PKEY* key, Encoder encode) {
    unsigned char* raw = nullptr;
    const int size = encode(key, &raw);
    const openssl::SecretBuffer der(
        raw, openssl::ClearFree{static_cast<std::size_t>(std::max(size, 0))});
    if (size <= 0) throw PlatformError("failed to export the key");
    return {der.get(), der.get() + size};
}

}  // namespace

SoftwareKey SoftwareKey::generateEC(int sizeInBits) {
    const char* curve = curveNameForSize(sizeInBits);
    if (curve == nullptr)
        throw PlatformError("unsupported EC key size " + std::to_string(sizeInBits));
    openssl::Pkey key(EVP_EC_gen(curve));
    if (!key) throw PlatformError("failed to generate an EC key");
    return {std::string(keyTypeEC), std::move(key)};
}

SoftwareKey SoftwareKey::generateRSA(int sizeInBits) {
    if (sizeInBits != 2048 && sizeInBits != 3072)
        throw PlatformError("unsupported RSA key size " + std::to_string(sizeInBits));
    openssl::Pkey key(EVP_RSA_gen(static_cast<unsigned>(sizeInBits)));
    if (!key) throw PlatformError("failed to generate an RSA key");
    return {std::string(keyTypeRSA), std::move(key)};
}

SoftwareKey SoftwareKey::fromExternalRepresentation(std::string_view keyType, ByteView data) {
    if (keyType == keyTypeRSA) {
        const unsigned char* cursor = data.data();
        openssl::Pkey key(
            d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &cursor, static_cast<long>(data.size())));
        if (!key || cursor != data.data() + data.size())
            throw PlatformError("invalid RSA private key data");
        return {std::string(keyTypeRSA), std::move(key)};
    }
    if (keyType != keyTypeEC) throw PlatformError("unsupported key type: " + std::string(keyType));

    // 0x04 || X || Y || K: three values of the field size after the point prefix.
    const int sizeInBits =
        data.size() % 3 == 1 ? ecSizeForPointLength(1 + 2 * (data.size() / 3)) : 0;
    if (sizeInBits == 0) throw PlatformError("invalid EC private key data");
    const std::size_t pointSize = 1 + 2 * (data.size() / 3);
    const ByteView point = data.first(pointSize);
    const ByteView scalar = data.subspan(pointSize);
    // The point must belong to the scalar, or the data was damaged.
    if (!std::ranges::equal(point, publicPointOf(sizeInBits, scalar)))
        throw PlatformError("invalid EC private key data");
    return {std::string(keyTypeEC), ecKeyPairKey(sizeInBits, point, scalar)};
}

SoftwareKey SoftwareKey::fromPrivateScalar(int sizeInBits, ByteView scalar) {
    const Bytes point = publicPointOf(sizeInBits, scalar);
    return {std::string(keyTypeEC), ecKeyPairKey(sizeInBits, point, scalar)};
}

SoftwareKey SoftwareKey::adopt(openssl::Pkey key) {
    if (key && EVP_PKEY_get_base_id(key.get()) == EVP_PKEY_RSA)
        return {std::string(keyTypeRSA), std::move(key)};
    if (key && EVP_PKEY_get_base_id(key.get()) == EVP_PKEY_EC && onSupportedCurve(key.get()))
        return {std::string(keyTypeEC), std::move(key)};
    throw PlatformError("unsupported private key type");
}

int SoftwareKey::sizeInBits() const {
    return EVP_PKEY_get_bits(key_.get());
}

PublicKeyAttributes SoftwareKey::publicKeyAttributes() const {
    if (keyType_ == keyTypeRSA) {
        const auto der = derOf(
            key_.get(), [](EVP_PKEY* k, unsigned char** out) { return i2d_PublicKey(k, out); });
        return {keyType_, sizeInBits(), Bytes(der.begin(), der.end())};
    }
    return {keyType_, sizeInBits(), encodedPublicPoint(key_.get())};
}

crypto::SecretBytes SoftwareKey::externalRepresentation() const {
    if (keyType_ == keyTypeRSA) {
        return derOf(key_.get(),
                     [](EVP_PKEY* k, unsigned char** out) { return i2d_PrivateKey(k, out); });
    }
    const Bytes point = encodedPublicPoint(key_.get());
    const auto scalar = privateScalar();
    crypto::SecretBytes out(point.begin(), point.end());
    out.insert(out.end(), scalar.begin(), scalar.end());
    return out;
}

crypto::SecretBytes SoftwareKey::privateScalar() const {
    if (keyType_ != keyTypeEC) throw PlatformError("only EC keys have a private scalar");
    BIGNUM* raw = nullptr;
    if (EVP_PKEY_get_bn_param(key_.get(), OSSL_PKEY_PARAM_PRIV_KEY, &raw) != 1) {
        throw PlatformError("failed to export the private key");
    }
    const openssl::Bignum scalar(raw);
    crypto::SecretBytes out(static_cast<std::size_t>(fieldBytes(sizeInBits())));
    if (BN_bn2binpad(scalar.get(), out.data(), static_cast<int>(out.size())) < 0) {
        throw PlatformError("failed to export the private key");
    }
    return out;
}

bool SoftwareKey::supports(SignatureAlgorithm algorithm) const {
    return useOf(algorithm).keyType == keyType_;
}

Bytes SoftwareKey::sign(SignatureAlgorithm algorithm, ByteView message) const {
    if (!supports(algorithm)) throw PlatformError("algorithm not supported by the key");
    if (useOf(algorithm).digest == nullptr) {
        return signDigest(key_.get(), message, [&](EVP_PKEY_CTX* context) {
            return keyType_ != keyTypeRSA ||
                   EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) == 1;
        });
    }
    openssl::MdContext context(EVP_MD_CTX_new());
    EVP_PKEY_CTX* parameters = nullptr;
    std::size_t size = 0;
    if (!context ||
        EVP_DigestSignInit(context.get(), &parameters, useOf(algorithm).digest, nullptr,
                           key_.get()) != 1 ||
        (keyType_ == keyTypeRSA &&
         EVP_PKEY_CTX_set_rsa_padding(parameters, RSA_PKCS1_PADDING) != 1) ||
        EVP_DigestSign(context.get(), nullptr, &size, message.data(), message.size()) != 1) {
        throw PlatformError("signing failed");
    }
    Bytes signature(size);
    if (EVP_DigestSign(context.get(), signature.data(), &size, message.data(), message.size()) !=
        1) {
        throw PlatformError("signing failed");
    }
    signature.resize(size);
    return signature;
}

Bytes SoftwareKey::signRsaPss(ByteView digest, const RsaPssParameters& parameters) const {
    if (keyType_ != keyTypeRSA) throw PlatformError("RSA-PSS needs an RSA key");
    if (digest.size() != crypto::digestSize(parameters.hash))
        throw PlatformError("the digest does not match its algorithm");
    // OpenSSL reads negative salt lengths as special values; a length that large fits no key.
    if (parameters.saltLength > static_cast<std::size_t>(std::numeric_limits<int>::max()))
        throw PlatformError("the salt does not fit the key");
    return signDigest(key_.get(), digest, [&](EVP_PKEY_CTX* context) {
        return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) == 1 &&
               EVP_PKEY_CTX_set_signature_md(context, crypto::messageDigest(parameters.hash)) ==
                   1 &&
               EVP_PKEY_CTX_set_rsa_mgf1_md(context, crypto::messageDigest(parameters.mgf1Hash)) ==
                   1 &&
               EVP_PKEY_CTX_set_rsa_pss_saltlen(context, static_cast<int>(parameters.saltLength)) ==
                   1;
    });
}

crypto::SecretBytes SoftwareKey::decryptRsaOaep(ByteView ciphertext,
                                                const RsaOaepParameters& parameters) const {
    if (keyType_ != keyTypeRSA) throw PlatformError("RSA-OAEP needs an RSA key");
    openssl::PkeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, key_.get(), nullptr));
    std::size_t size = 0;
    if (!context || EVP_PKEY_decrypt_init(context.get()) != 1 ||
        !setOaepPadding(context.get(), parameters) ||
        EVP_PKEY_decrypt(context.get(), nullptr, &size, ciphertext.data(), ciphertext.size()) !=
            1) {
        throw PlatformError("decryption failed");
    }
    crypto::SecretBytes plaintext(size);
    if (EVP_PKEY_decrypt(context.get(), plaintext.data(), &size, ciphertext.data(),
                         ciphertext.size()) != 1) {
        throw PlatformError("decryption failed");
    }
    plaintext.resize(size);
    return plaintext;
}

crypto::SecretBytes SoftwareKey::agree(ByteView peerPoint) const {
    if (keyType_ != keyTypeEC) throw PlatformError("key agreement needs an EC key");
    const auto peer = ecPublicKeyFromPoint(sizeInBits(), peerPoint);
    openssl::PkeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, key_.get(), nullptr));
    std::size_t size = 0;
    if (!context || EVP_PKEY_derive_init(context.get()) != 1 ||
        EVP_PKEY_derive_set_peer(context.get(), peer.get()) != 1 ||
        EVP_PKEY_derive(context.get(), nullptr, &size) != 1) {
        throw PlatformError("key agreement failed");
    }
    crypto::SecretBytes secret(size);
    if (EVP_PKEY_derive(context.get(), secret.data(), &size) != 1)
        throw PlatformError("key agreement failed");
    secret.resize(size);
    return secret;
}

}  // namespace keyloft::platform::key_service
