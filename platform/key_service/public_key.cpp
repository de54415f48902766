#include "platform/key_service/public_key.hpp"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "base/error.hpp"
#include "platform/crypto/openssl_handles.hpp"
#include "platform/key_service/ec_key_builder.hpp"
#include "platform/key_service/software_key.hpp"

namespace keyloft::platform::key_service {
namespace {

openssl::Pkey makeEcKey(ByteView point) {
    const int sizeInBits = ecSizeForPointLength(point.size());
    if (sizeInBits == 0 || point[0] != 0x04) {
        throw PlatformError(
            "EC public key data is not an uncompressed point on P-256, P-384 or P-521");
    }
    openssl::Pkey key = ecKeyFromParts(sizeInBits, point);
    if (!key) throw PlatformError("EC public key data is not a point on its curve");
    return key;
}

openssl::Bignum numberParameter(const EVP_PKEY* key, const char* name) {
    BIGNUM* number = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &number) != 1) {
        throw PlatformError("cannot read RSA public key numbers");
    }
    return openssl::Bignum(number);
}

Bytes magnitude(const BIGNUM* number) {
    Bytes bytes(static_cast<std::size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, bytes.data());
    return bytes;
}

}  // namespace

PublicKey PublicKey::fromData(std::string_view keyType, ByteView data) {
    if (data.empty()) throw PlatformError("public key data is empty");
    if (keyType == keyTypeEC) return {std::string(keyType), makeEcKey(data)};
    if (keyType != keyTypeRSA) {
        throw PlatformError("key service does not support key type " + std::string(keyType));
    }
    const unsigned char* cursor = data.data();
    Key key(d2i_PublicKey(EVP_PKEY_RSA, nullptr, &cursor, static_cast<long>(data.size())));
    if (!key || cursor != data.data() + data.size()) {
        throw PlatformError("RSA public key data is not a DER RSAPublicKey");
    }
    // A key with a zero or negative modulus or exponent decodes but is no key.
    for (const char* name : {OSSL_PKEY_PARAM_RSA_N, OSSL_PKEY_PARAM_RSA_E}) {
        const openssl::Bignum number = numberParameter(key.get(), name);
        if (BN_is_zero(number.get()) || BN_is_negative(number.get())) {
            throw PlatformError("RSA public key data holds a number that is not positive");
        }
    }
    return {std::string(keyType), std::move(key)};
}

std::optional<PublicKeyAttributes> PublicKey::attributes() const {
    const int bits = EVP_PKEY_get_bits(key_.get());
    if (bits <= 0) return std::nullopt;
    try {
        return PublicKeyAttributes{keyType_, bits, externalRepresentation()};
    } catch (const PlatformError&) {
        return std::nullopt;
    }
}

Bytes PublicKey::externalRepresentation() const {
    if (keyType_ == keyTypeEC) {
        std::size_t length = 0;
        if (EVP_PKEY_get_octet_string_param(key_.get(), OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, nullptr,
                                            0, &length) != 1) {
            throw PlatformError("failed to copy external representation of EC public key");
        }
        Bytes point(length);
        if (EVP_PKEY_get_octet_string_param(key_.get(), OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY,
                                            point.data(), point.size(), &length) != 1) {
            throw PlatformError("failed to copy external representation of EC public key");
        }
        point.resize(length);
        return point;
    }
    unsigned char* rawDer = nullptr;
    const int length = i2d_PublicKey(key_.get(), &rawDer);
    const openssl::Buffer der(rawDer);
    if (length <= 0 || !der) {
        throw PlatformError("failed to copy external representation of RSA public key");
    }
    return {der.get(), der.get() + length};
}

PublicKey::RsaNumbers PublicKey::rsaNumbers() const {
    if (keyType_ != keyTypeRSA) throw PlatformError("key is not an RSA public key");
    return {magnitude(numberParameter(key_.get(), OSSL_PKEY_PARAM_RSA_N).get()),
            magnitude(numberParameter(key_.get(), OSSL_PKEY_PARAM_RSA_E).get())};
}

}  // namespace keyloft::platform::key_service
