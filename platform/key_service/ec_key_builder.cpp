#include "platform/key_service/ec_key_builder.hpp"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/param_build.h>

#include "base/error.hpp"

namespace keyloft::platform::key_service {
namespace {

using Group = openssl::EcGroup;
using Point = openssl::EcPoint;

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

int fieldBytes(int sizeInBits) {
    return (sizeInBits + 7) / 8;
}

int ecSizeForPointLength(std::size_t length) {
    for (const int size : {256, 384, 521}) {
        if (length == 1 + 2 * static_cast<std::size_t>(fieldBytes(size))) return size;
    }
    return 0;
}

openssl::Pkey ecKeyFromParts(int sizeInBits, ByteView point, const BIGNUM* scalar) {
    const char* curve = curveNameForSize(sizeInBits);
    if (curve == nullptr) return nullptr;
    openssl::ParamBuilder builder(OSSL_PARAM_BLD_new());
    if (!builder) return nullptr;
    OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, curve, 0);
    OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                     point.size());
    if (scalar != nullptr) OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, scalar);
    const openssl::Params params(OSSL_PARAM_BLD_to_param(builder.get()));
    openssl::PkeyContext context(EVP_PKEY_CTX_new_from_name(nullptr, ecKeyManagementName, nullptr));
    EVP_PKEY* key = nullptr;
    if (!params || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
        EVP_PKEY_fromdata(context.get(), &key,
                          scalar != nullptr ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY,
                          params.get()) != 1) {
        return nullptr;
    }
    return openssl::Pkey(key);
}

openssl::Pkey ecPublicKeyFromPoint(int sizeInBits, ByteView point) {
    auto key = point.size() == 1 + 2 * static_cast<std::size_t>(fieldBytes(sizeInBits))
                   ? ecKeyFromParts(sizeInBits, point)
                   : nullptr;
    if (!key) throw PlatformError("invalid public key data");
    return key;
}

// Plain group arithmetic, not a key context: a key context would go to whatever engine the host
// application made its default.
Bytes publicPointOf(int sizeInBits, ByteView scalar) {
    const char* curve = curveNameForSize(sizeInBits);
    const auto field = static_cast<std::size_t>(fieldBytes(sizeInBits));
    const Group group(curve != nullptr ? EC_GROUP_new_by_curve_name(EC_curve_nist2nid(curve))
                                       : nullptr);
    if (!group || scalar.size() != field) throw PlatformError("invalid EC private key data");
    const openssl::Bignum k(BN_bin2bn(scalar.data(), static_cast<int>(scalar.size()), nullptr));
    if (!k || BN_is_zero(k.get()) || BN_cmp(k.get(), EC_GROUP_get0_order(group.get())) >= 0)
        throw PlatformError("invalid EC private key data");
    const Point point(EC_POINT_new(group.get()));
    Bytes encoded(1 + 2 * field);
    if (!point || EC_POINT_mul(group.get(), point.get(), k.get(), nullptr, nullptr, nullptr) != 1 ||
        EC_POINT_point2oct(group.get(), point.get(), POINT_CONVERSION_UNCOMPRESSED, encoded.data(),
                           encoded.size(), nullptr) != encoded.size()) {
        throw PlatformError("failed to compute the public key");
    }
    return encoded;
}

openssl::Pkey ecKeyPairKey(int sizeInBits, ByteView point, ByteView scalar) {
    // A secure number makes the parameter builder put the scalar where freeing wipes it.
    const openssl::Bignum k(BN_secure_new());
    const bool loaded =
        k && BN_bin2bn(scalar.data(), static_cast<int>(scalar.size()), k.get()) != nullptr;
    auto key = loaded ? ecKeyFromParts(sizeInBits, point, k.get()) : nullptr;
    if (!key) throw PlatformError("invalid EC private key data");
    return key;
}

}  // namespace keyloft::platform::key_service
