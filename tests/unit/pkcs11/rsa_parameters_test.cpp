// RSA mechanisms checked when their operation starts or signs, on a key held in memory: the card's
// RSA keys come only from imported files.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <limits>

#include "pkcs11/operations.hpp"
#include "platform/key_service/software_key.hpp"

namespace keyloft::pkcs11 {
namespace {

using platform::key_service::SoftwareKey;

const SoftwareKey& rsaKey() {
    static const SoftwareKey key = SoftwareKey::adopt(platform::openssl::Pkey(EVP_RSA_gen(2048)));
    return key;
}

TokenObject rsaObject(CK_OBJECT_CLASS objectClass) {
    AttributeSet attributes;
    attributes.setBool(objectClass == CKO_PRIVATE_KEY ? CKA_SIGN : CKA_VERIFY, true);
    const auto publicKey = rsaKey().publicKeyAttributes();
    return {{objectClass, rsaKey().applicationLabel()},
            std::move(attributes),
            KeyFacts{CKK_RSA, 2048, rsaKey().applicationLabel(), publicKey.externalRepresentation}};
}

template <class Step>
CK_RV rvOf(Step&& step) {
    try {
        step();
        return CKR_OK;
    } catch (const CryptokiError& error) {
        return error.rv();
    }
}

struct SaltCase {
    CK_ULONG saltLength;
    CK_RV expected;
};

class PssSaltLength : public ::testing::TestWithParam<SaltCase> {};

// A 2048-bit key's encoded message holds 256 bytes: at most 256 - 32 - 2 of salt with SHA-256.
// Lengths near the maximum once wrapped round in the check and were taken.
TEST_P(PssSaltLength, MustFitTheKeyForSigningAndVerifying) {
    CK_RSA_PKCS_PSS_PARAMS parameters{CKM_SHA256, CKG_MGF1_SHA256, GetParam().saltLength};
    const CK_MECHANISM mechanism{CKM_SHA256_RSA_PKCS_PSS, &parameters, sizeof parameters};
    EXPECT_EQ(rvOf([&] { SignOperation(mechanism, rsaObject(CKO_PRIVATE_KEY)); }),
              GetParam().expected);
    EXPECT_EQ(rvOf([&] { VerifyOperation(mechanism, rsaObject(CKO_PUBLIC_KEY)); }),
              GetParam().expected);
}

constexpr CK_ULONG maxUlong = std::numeric_limits<CK_ULONG>::max();
INSTANTIATE_TEST_SUITE_P(Lengths, PssSaltLength,
                         ::testing::Values(SaltCase{0, CKR_OK}, SaltCase{222, CKR_OK},
                                           SaltCase{223, CKR_MECHANISM_PARAM_INVALID},
                                           SaltCase{maxUlong - 33, CKR_MECHANISM_PARAM_INVALID},
                                           SaltCase{maxUlong, CKR_MECHANISM_PARAM_INVALID}));

// OpenSSL cannot check a signature over an empty block, so the module would make signatures that
// its own verification, and every verifier built on OpenSSL, refuses.
TEST(RsaPkcs1, EmptyDataIsOutOfRange) {
    const CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    const SignOperation signing(mechanism, rsaObject(CKO_PRIVATE_KEY));
    EXPECT_EQ(rvOf([&] { signing.sign(rsaKey()); }), CKR_DATA_LEN_RANGE);
    const VerifyOperation verifying(mechanism, rsaObject(CKO_PUBLIC_KEY));
    EXPECT_EQ(rvOf([&] { verifying.verify(Bytes(256)); }), CKR_DATA_LEN_RANGE);
}

}  // namespace
}  // namespace keyloft::pkcs11
