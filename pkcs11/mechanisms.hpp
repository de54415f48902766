#pragma once

#include <optional>
#include <span>
#include <vector>

#include "pkcs11/cryptoki.hpp"
#include "platform/crypto/digest.hpp"

namespace keyloft::pkcs11 {

enum class Scheme { ecdsa, ecdh, rsaPkcs1, rsaPss, rsaOaep, digest, ecKeyPair, rsaKeyPair };

// What the module does for one mechanism.
struct Mechanism {
    CK_MECHANISM_TYPE type;
    Scheme scheme;
    // The digest the module computes over the data first; nothing when the data is the input.
    std::optional<platform::crypto::DigestAlgorithm> digest;
};

// Every mechanism the module offers, in the order it lists them.
std::span<const Mechanism> mechanisms();
// Nothing for a mechanism the module does not offer.
const Mechanism* findMechanism(CK_MECHANISM_TYPE type);

// The key type a scheme works with; CK_UNAVAILABLE_INFORMATION for digests, which take no key.
CK_KEY_TYPE keyTypeOf(Scheme scheme);
// Key sizes in bits and CKF_ flags, as C_GetMechanismInfo reports them.
CK_MECHANISM_INFO mechanismInfo(const Mechanism& mechanism);
// The mechanisms a key of this type can be used with (CKA_ALLOWED_MECHANISMS).
std::vector<CK_MECHANISM_TYPE> mechanismsFor(CK_KEY_TYPE keyType);

// The digest named by a CKM_SHA* mechanism or CKG_MGF1_SHA* generator; nothing for others.
std::optional<platform::crypto::DigestAlgorithm> digestOfMechanism(CK_MECHANISM_TYPE type);
std::optional<platform::crypto::DigestAlgorithm> digestOfMgf(CK_RSA_PKCS_MGF_TYPE mgf);

}  // namespace keyloft::pkcs11
