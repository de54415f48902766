// What C_GenerateKeyPair's templates may ask, decided before anything is made.
#include <gtest/gtest.h>

#include <vector>

#include "der/object_identifiers.hpp"
#include "der/record.hpp"
#include "pkcs11/card_templates.hpp"

namespace keyloft::pkcs11 {
namespace {

CK_BBOOL yes = CK_TRUE;
CK_BBOOL no = CK_FALSE;
CK_ULONG bits2048 = 2048;
CK_ULONG bits1024 = 1024;
CK_BYTE exponent65537[] = {0x00, 0x01, 0x00, 0x01};
CK_BYTE exponent3[] = {0x03};
CK_BYTE secret[] = {0x01, 0x02};
const Bytes p256 = der::encode(der::oidRecord(der::curveOidForSize(256)));

CK_ATTRIBUTE flag(CK_ATTRIBUTE_TYPE type, CK_BBOOL& value) {
    return {type, &value, sizeof value};
}

struct Row {
    const char* name;
    CK_MECHANISM_TYPE mechanism;
    std::vector<CK_ATTRIBUTE> extraPublic;
    std::vector<CK_ATTRIBUTE> extraPrivate;
    CK_RV expected;
};

CK_RV answerTo(const Row& row) {
    const bool rsa = row.mechanism == CKM_RSA_PKCS_KEY_PAIR_GEN;
    std::vector<CK_ATTRIBUTE> publicTemplate{flag(CKA_TOKEN, yes)};
    if (rsa) {
        publicTemplate.push_back({CKA_MODULUS_BITS, &bits2048, sizeof bits2048});
    } else {
        publicTemplate.push_back({CKA_EC_PARAMS, const_cast<CK_BYTE*>(p256.data()), p256.size()});
    }
    publicTemplate.insert(publicTemplate.end(), row.extraPublic.begin(), row.extraPublic.end());
    std::vector<CK_ATTRIBUTE> privateTemplate{flag(CKA_TOKEN, yes)};
    privateTemplate.insert(privateTemplate.end(), row.extraPrivate.begin(), row.extraPrivate.end());
    try {
        (void)keyPairRequestOf(row.mechanism, publicTemplate, privateTemplate);
        return CKR_OK;
    } catch (const CryptokiError& error) {
        return error.rv();
    }
}

TEST(KeyPairTemplates, AreTakenOnlyWhenTheModuleHonoursEveryAttribute) {
    const CK_MECHANISM_TYPE ec = CKM_EC_KEY_PAIR_GEN;
    const CK_MECHANISM_TYPE rsa = CKM_RSA_PKCS_KEY_PAIR_GEN;
    const Row rows[] = {
        {"plain EC", ec, {}, {}, CKR_OK},
        {"plain RSA", rsa, {}, {}, CKR_OK},
        // pkcs11-tool's own templates.
        {"pkcs11-tool EC",
         ec,
         {flag(CKA_VERIFY, yes), flag(CKA_DERIVE, yes), flag(CKA_PRIVATE, no)},
         {flag(CKA_PRIVATE, yes), flag(CKA_SENSITIVE, yes), flag(CKA_SIGN, yes),
          flag(CKA_DERIVE, yes)},
         CKR_OK},
        {"RSA exponent 65537 with a leading zero",
         rsa,
         {{CKA_PUBLIC_EXPONENT, exponent65537, sizeof exponent65537}},
         {},
         CKR_OK},
        {"unknown attribute", ec, {{0x7FFFFFF0UL, &yes, 1}}, {}, CKR_ATTRIBUTE_TYPE_INVALID},
        {"vendor attribute",
         ec,
         {},
         {{CKA_VENDOR_DEFINED | 1, &yes, 1}},
         CKR_ATTRIBUTE_TYPE_INVALID},
        {"private value given",
         ec,
         {},
         {{CKA_VALUE, secret, sizeof secret}},
         CKR_TEMPLATE_INCONSISTENT},
        {"one attribute, two values",
         ec,
         {},
         {flag(CKA_SIGN, yes), flag(CKA_SIGN, no)},
         CKR_TEMPLATE_INCONSISTENT},
        {"one attribute twice, same value",
         ec,
         {},
         {flag(CKA_SIGN, yes), flag(CKA_SIGN, yes)},
         CKR_OK},
        {"not sensitive", ec, {}, {flag(CKA_SENSITIVE, no)}, CKR_TEMPLATE_INCONSISTENT},
        {"private public key", ec, {flag(CKA_PRIVATE, yes)}, {}, CKR_TEMPLATE_INCONSISTENT},
        {"unwrapping key", rsa, {}, {flag(CKA_UNWRAP, yes)}, CKR_TEMPLATE_INCONSISTENT},
        {"local given", ec, {}, {flag(CKA_LOCAL, yes)}, CKR_TEMPLATE_INCONSISTENT},
        {"signing public key", ec, {flag(CKA_SIGN, yes)}, {}, CKR_TEMPLATE_INCONSISTENT},
        {"RSA key that derives", rsa, {}, {flag(CKA_DERIVE, yes)}, CKR_TEMPLATE_INCONSISTENT},
        {"EC key that decrypts", ec, {}, {flag(CKA_DECRYPT, yes)}, CKR_TEMPLATE_INCONSISTENT},
        {"RSA exponent 3",
         rsa,
         {{CKA_PUBLIC_EXPONENT, exponent3, sizeof exponent3}},
         {},
         CKR_ATTRIBUTE_VALUE_INVALID},
        {"two modulus sizes",
         rsa,
         {{CKA_MODULUS_BITS, &bits1024, sizeof bits1024}},
         {},
         CKR_TEMPLATE_INCONSISTENT},
        {"modulus size for an EC key",
         ec,
         {{CKA_MODULUS_BITS, &bits2048, sizeof bits2048}},
         {},
         CKR_TEMPLATE_INCONSISTENT},
    };
    for (const auto& row : rows) EXPECT_EQ(answerTo(row), row.expected) << row.name;
}

}  // namespace
}  // namespace keyloft::pkcs11
