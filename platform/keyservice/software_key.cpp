#include "platform/keyservice/software_key.hpp"

#include <openssl/core_names.h>
#include <openssl/x509.h>

#include "keyloft/error.hpp"
#include "platform/crypto/digest.hpp"

namespace keyloft::platform {
namespace {

int fieldBytes(int sizeInBits) {
    return (sizeInBits + 7) / 8;
}

int ecSizeForFieldBytes(std::size_t bytes) {
    switch (bytes) {
        case 32:
            return 256;
        case 48:
            return 384;
        case 66:
            return 521;
        default:
            return 0;
    }
}

openssl::Pkey keyFromParams(const char* keyType, OSSL_PARAM* params, int selection) {
    openssl::PkeyContext context(EVP_PKEY_CTX_new_from_name(nullptr, keyType, nullptr));
    EVP_PKEY* raw = nullptr;
    if (!context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
        EVP_PKEY_fromdata(context.get(), &raw, selection, params) != 1) {
        return nullptr;
    }
    return openssl::Pkey(raw);
}

Bytes encodedPublicPoint(EVP_PKEY* key) {
    unsigned char* raw = nullptr;
    const std::size_t size = EVP_PKEY_get1_encoded_public_key(key, &raw);
    if (size == 0) throw PlatformError("failed to read the public key");
    Bytes point(raw, raw + size);
    OPENSSL_free(raw);
    return point;
}

template <class Encoder>
SecretBytes derOf(EVP_PKEY* key, Encoder encode) {
    unsigned char* raw = nullptr;
    const int size = encode(key, &raw);
    if (size <= 0) throw PlatformError("failed to export the key");
    SecretBytes out(raw, raw + size);
    OPENSSL_clear_free(raw, static_cast<std::size_t>(size));
    return out;
}

}  // namespace

const char* curveNameForSize(int sizeInBits) {
    switch (sizeInBits) {
        case 256:
            return "P-256";
        case 384:
            return "P-384";
        case 521:
            return "P-521";
        default:
            return nullptr;
    }
}

openssl::Pkey ecPublicKeyFromPoint(int sizeInBits, ByteView point) {
    const char* curve = curveNameForSize(sizeInBits);
    if (curve == nullptr ||
        point.size() != static_cast<std::size_t>(1 + 2 * fieldBytes(sizeInBits))) {
        throw PlatformError("invalid public key data");
    }
    openssl::ParamBuilder builder(OSSL_PARAM_BLD_new());
    OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, curve, 0);
    OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                     point.size());
    const openssl::Params params(OSSL_PARAM_BLD_to_param(builder.get()));
    auto key = keyFromParams("EC", params.get(), EVP_PKEY_PUBLIC_KEY);
    if (!key) throw PlatformError("invalid public key data");
    return key;
}

SoftwareKey SoftwareKey::generateEC(int sizeInBits) {
    const char* curve = curveNameForSize(sizeInBits);
    if (curve == nullptr)
        throw PlatformError("unsupported EC key size " + std::to_string(sizeInBits));
    openssl::Pkey key(EVP_EC_gen(curve));
    if (!key) throw PlatformError("failed to generate an EC key");
    return {std::string(keyTypeEC), std::move(key)};
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
    const int sizeInBits = data.size() % 3 == 1 ? ecSizeForFieldBytes(data.size() / 3) : 0;
    if (sizeInBits == 0 || data[0] != 0x04) throw PlatformError("invalid EC private key data");
    const std::size_t pointSize = 1 + 2 * (data.size() / 3);
    const openssl::Bignum scalar(
        BN_bin2bn(data.data() + pointSize, static_cast<int>(data.size() - pointSize), nullptr));
    openssl::ParamBuilder builder(OSSL_PARAM_BLD_new());
    OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME,
                                    curveNameForSize(sizeInBits), 0);
    OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, data.data(),
                                     pointSize);
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, scalar.get());
    const openssl::Params params(OSSL_PARAM_BLD_to_param(builder.get()));
    auto key = keyFromParams("EC", params.get(), EVP_PKEY_KEYPAIR);
    // The point must belong to the scalar, or the data was damaged.
    openssl::PkeyContext check(key ? EVP_PKEY_CTX_new_from_pkey(nullptr, key.get(), nullptr)
                                   : nullptr);
    if (!check || EVP_PKEY_pairwise_check(check.get()) != 1)
        throw PlatformError("invalid EC private key data");
    return {std::string(keyTypeEC), std::move(key)};
}

SoftwareKey SoftwareKey::adopt(openssl::Pkey key) {
    if (key && EVP_PKEY_get_base_id(key.get()) == EVP_PKEY_RSA)
        return {std::string(keyTypeRSA), std::move(key)};
    if (key && EVP_PKEY_get_base_id(key.get()) == EVP_PKEY_EC &&
        curveNameForSize(EVP_PKEY_get_bits(key.get()))) {
        return {std::string(keyTypeEC), std::move(key)};
    }
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

Bytes SoftwareKey::applicationLabel() const {
    return sha1(publicKeyAttributes().externalRepresentation);
}

SecretBytes SoftwareKey::externalRepresentation() const {
    if (keyType_ == keyTypeRSA) {
        return derOf(key_.get(),
                     [](EVP_PKEY* k, unsigned char** out) { return i2d_PrivateKey(k, out); });
    }
    const auto size = static_cast<std::size_t>(fieldBytes(sizeInBits()));
    BIGNUM* raw = nullptr;
    if (EVP_PKEY_get_bn_param(key_.get(), OSSL_PKEY_PARAM_PRIV_KEY, &raw) != 1) {
        throw PlatformError("failed to export the private key");
    }
    const openssl::Bignum scalar(raw);
    const Bytes point = encodedPublicPoint(key_.get());
    SecretBytes out(point.begin(), point.end());
    out.resize(point.size() + size);
    if (BN_bn2binpad(scalar.get(), out.data() + point.size(), static_cast<int>(size)) < 0) {
        throw PlatformError("failed to export the private key");
    }
    return out;
}

Bytes SoftwareKey::sign(SignatureAlgorithm algorithm, ByteView message) const {
    const bool wantsEC = algorithm == SignatureAlgorithm::ecdsaSignatureMessageX962SHA384;
    if (wantsEC != (keyType_ == keyTypeEC))
        throw PlatformError("algorithm not supported by the key");
    openssl::MdContext context(EVP_MD_CTX_new());
    std::size_t size = 0;
    if (!context ||
        EVP_DigestSignInit(context.get(), nullptr, EVP_sha384(), nullptr, key_.get()) != 1 ||
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

SecretBytes SoftwareKey::agree(ByteView peerPoint) const {
    if (keyType_ != keyTypeEC) throw PlatformError("key agreement needs an EC key");
    const auto peer = ecPublicKeyFromPoint(sizeInBits(), peerPoint);
    openssl::PkeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, key_.get(), nullptr));
    std::size_t size = 0;
    if (!context || EVP_PKEY_derive_init(context.get()) != 1 ||
        EVP_PKEY_derive_set_peer(context.get(), peer.get()) != 1 ||
        EVP_PKEY_derive(context.get(), nullptr, &size) != 1) {
        throw PlatformError("key agreement failed");
    }
    SecretBytes secret(size);
    if (EVP_PKEY_derive(context.get(), secret.data(), &size) != 1)
        throw PlatformError("key agreement failed");
    secret.resize(size);
    return secret;
}

}  // namespace keyloft::platform
