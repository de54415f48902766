#include "pkcs11/mechanisms.hpp"

#include <algorithm>
#include <array>

namespace keyloft::pkcs11 {
namespace {

using platform::crypto::DigestAlgorithm;

constexpr std::array table{
    Mechanism{CKM_ECDSA, Scheme::ecdsa, std::nullopt},
    Mechanism{CKM_ECDSA_SHA1, Scheme::ecdsa, DigestAlgorithm::sha1},
    Mechanism{CKM_ECDSA_SHA224, Scheme::ecdsa, DigestAlgorithm::sha224},
    Mechanism{CKM_ECDSA_SHA256, Scheme::ecdsa, DigestAlgorithm::sha256},
    Mechanism{CKM_ECDSA_SHA384, Scheme::ecdsa, DigestAlgorithm::sha384},
    Mechanism{CKM_ECDSA_SHA512, Scheme::ecdsa, DigestAlgorithm::sha512},
    Mechanism{CKM_ECDH1_DERIVE, Scheme::ecdh, std::nullopt},
    Mechanism{CKM_EC_KEY_PAIR_GEN, Scheme::ecKeyPair, std::nullopt},
    Mechanism{CKM_RSA_PKCS, Scheme::rsaPkcs1, std::nullopt},
    Mechanism{CKM_SHA1_RSA_PKCS, Scheme::rsaPkcs1, DigestAlgorithm::sha1},
    Mechanism{CKM_SHA224_RSA_PKCS, Scheme::rsaPkcs1, DigestAlgorithm::sha224},
    Mechanism{CKM_SHA256_RSA_PKCS, Scheme::rsaPkcs1, DigestAlgorithm::sha256},
    Mechanism{CKM_SHA384_RSA_PKCS, Scheme::rsaPkcs1, DigestAlgorithm::sha384},
    Mechanism{CKM_SHA512_RSA_PKCS, Scheme::rsaPkcs1, DigestAlgorithm::sha512},
    Mechanism{CKM_RSA_PKCS_PSS, Scheme::rsaPss, std::nullopt},
    Mechanism{CKM_SHA1_RSA_PKCS_PSS, Scheme::rsaPss, DigestAlgorithm::sha1},
    Mechanism{CKM_SHA224_RSA_PKCS_PSS, Scheme::rsaPss, DigestAlgorithm::sha224},
    Mechanism{CKM_SHA256_RSA_PKCS_PSS, Scheme::rsaPss, DigestAlgorithm::sha256},
    Mechanism{CKM_SHA384_RSA_PKCS_PSS, Scheme::rsaPss, DigestAlgorithm::sha384},
    Mechanism{CKM_SHA512_RSA_PKCS_PSS, Scheme::rsaPss, DigestAlgorithm::sha512},
    Mechanism{CKM_RSA_PKCS_OAEP, Scheme::rsaOaep, std::nullopt},
    Mechanism{CKM_RSA_PKCS_KEY_PAIR_GEN, Scheme::rsaKeyPair, std::nullopt},
    Mechanism{CKM_SHA_1, Scheme::digest, DigestAlgorithm::sha1},
    Mechanism{CKM_SHA224, Scheme::digest, DigestAlgorithm::sha224},
    Mechanism{CKM_SHA256, Scheme::digest, DigestAlgorithm::sha256},
    Mechanism{CKM_SHA384, Scheme::digest, DigestAlgorithm::sha384},
    Mechanism{CKM_SHA512, Scheme::digest, DigestAlgorithm::sha512},
};

constexpr CK_ULONG ecMinBits = 256;
constexpr CK_ULONG ecMaxBits = 521;
constexpr CK_ULONG rsaMinBits = 1024;
constexpr CK_ULONG rsaMaxBits = 16384;
// The sizes of the RSA keys the card makes.
constexpr CK_ULONG rsaMadeMinBits = 2048;
constexpr CK_ULONG rsaMadeMaxBits = 3072;
constexpr CK_FLAGS ecCurveFlags = CKF_EC_F_P | CKF_EC_NAMEDCURVE | CKF_EC_UNCOMPRESS;

}  // namespace

std::span<const Mechanism> mechanisms() {
    return table;
}

const Mechanism* findMechanism(CK_MECHANISM_TYPE type) {
    const auto found = std::find_if(table.begin(), table.end(),
                                    [&](const Mechanism& m) { return m.type == type; });
    return found != table.end() ? &*found : nullptr;
}

CK_KEY_TYPE keyTypeOf(Scheme scheme) {
    if (scheme == Scheme::digest) return CK_UNAVAILABLE_INFORMATION;
    return scheme == Scheme::ecdsa || scheme == Scheme::ecdh || scheme == Scheme::ecKeyPair
               ? CKK_EC
               : CKK_RSA;
}

CK_MECHANISM_INFO mechanismInfo(const Mechanism& mechanism) {
    switch (mechanism.scheme) {
        case Scheme::ecdsa:
            return {ecMinBits, ecMaxBits, CKF_SIGN | CKF_VERIFY | ecCurveFlags};
        case Scheme::ecdh:
            return {ecMinBits, ecMaxBits, CKF_DERIVE | ecCurveFlags};
        case Scheme::rsaPkcs1:
            // The raw mechanism also encrypts with public keys; the hash-and-sign ones only sign.
            return {rsaMinBits, rsaMaxBits,
                    CKF_SIGN | CKF_VERIFY | (mechanism.digest ? 0 : CKF_ENCRYPT)};
        case Scheme::rsaPss:
            return {rsaMinBits, rsaMaxBits, CKF_SIGN | CKF_VERIFY};
        case Scheme::rsaOaep:
            return {rsaMinBits, rsaMaxBits, CKF_ENCRYPT | CKF_DECRYPT};
        case Scheme::digest:
            return {0, 0, CKF_DIGEST};
        case Scheme::ecKeyPair:
            return {ecMinBits, ecMaxBits, CKF_GENERATE_KEY_PAIR | ecCurveFlags};
        case Scheme::rsaKeyPair:
            return {rsaMadeMinBits, rsaMadeMaxBits, CKF_GENERATE_KEY_PAIR};
    }
    return {};
}

std::vector<CK_MECHANISM_TYPE> mechanismsFor(CK_KEY_TYPE keyType) {
    std::vector<CK_MECHANISM_TYPE> types;
    for (const auto& mechanism : table) {
        // A key's mechanisms are what it is used with, not how it was made.
        if (keyTypeOf(mechanism.scheme) == keyType && mechanism.scheme != Scheme::ecKeyPair &&
            mechanism.scheme != Scheme::rsaKeyPair)
            types.push_back(mechanism.type);
    }
    return types;
}

std::optional<platform::crypto::DigestAlgorithm> digestOfMechanism(CK_MECHANISM_TYPE type) {
    switch (type) {
        case CKM_SHA_1:
            return DigestAlgorithm::sha1;
        case CKM_SHA224:
            return DigestAlgorithm::sha224;
        case CKM_SHA256:
            return DigestAlgorithm::sha256;
        case CKM_SHA384:
            return DigestAlgorithm::sha384;
        case CKM_SHA512:
            return DigestAlgorithm::sha512;
        default:
            return std::nullopt;
    }
}

std::optional<platform::crypto::DigestAlgorithm> digestOfMgf(CK_RSA_PKCS_MGF_TYPE mgf) {
    switch (mgf) {
        case CKG_MGF1_SHA1:
            return DigestAlgorithm::sha1;
        case CKG_MGF1_SHA224:
            return DigestAlgorithm::sha224;
        case CKG_MGF1_SHA256:
            return DigestAlgorithm::sha256;
        case CKG_MGF1_SHA384:
            return DigestAlgorithm::sha384;
        case CKG_MGF1_SHA512:
            return DigestAlgorithm::sha512;
        default:
            return std::nullopt;
    }
}

}  // namespace keyloft::pkcs11
