// Handles and sessions across changes the tool makes while an application holds them.
#include "card_session.hpp"
#include "encoding/hex.hpp"
#include "platform/crypto/digest.hpp"

namespace keyloft::testing {
namespace {

using Lifecycle = CardSession;

const Bytes digest =
    platform::crypto::digest(platform::crypto::DigestAlgorithm::sha256, bytesOf("lifecycle"));

CK_RV signWith(CK_FUNCTION_LIST& p11, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key) {
    CK_MECHANISM ecdsa{CKM_ECDSA, nullptr, 0};
    const CK_RV rv = p11.C_SignInit(session, &ecdsa, key);
    if (rv != CKR_OK) return rv;
    Bytes signature(132);  // room for any curve
    CK_ULONG size = signature.size();
    return p11.C_Sign(session, const_cast<CK_BYTE*>(digest.data()), digest.size(), signature.data(),
                      &size);
}

struct Deletion {
    std::string name;
    bool usedBefore;  // the session already reached and kept the key
    std::string keyType;
};

class DeletedKey : public CardSession, public ::testing::WithParamInterface<Deletion> {};

// Applications keep handles across searches; one deleted meanwhile must fail at its next use,
// without a new search, whether or not the session kept the key.
TEST_P(DeletedKey, FailsAtItsNextUse) {
    const std::string label = "deleted " + GetParam().name;
    createIdentity(label, GetParam().keyType);
    createIdentity(label + " stays");
    const auto key = object(CKO_PRIVATE_KEY, label);
    const auto certificate = object(CKO_CERTIFICATE, label);
    const auto other = object(CKO_PRIVATE_KEY, label + " stays");
    if (GetParam().usedBefore) {
        ASSERT_EQ(signWith(p11, session, key), CKR_OK);
    }
    // An operation started before the deletion, and one in another session.
    CK_MECHANISM ecdsa{CKM_ECDSA, nullptr, 0};
    ASSERT_EQ(p11.C_SignInit(session, &ecdsa, key), CKR_OK);

    runTool({"delete-identity", "-h", encoding::toHexString(value(key, CKA_ID))});

    Bytes signature(132);
    CK_ULONG size = signature.size();
    EXPECT_EQ(p11.C_Sign(session, const_cast<CK_BYTE*>(digest.data()), digest.size(),
                         signature.data(), &size),
              CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(signWith(p11, session, key), CKR_KEY_HANDLE_INVALID);
    for (const auto handle : {key, certificate}) {
        CK_ATTRIBUTE request{CKA_LABEL, nullptr, 0};
        EXPECT_EQ(p11.C_GetAttributeValue(session, handle, &request, 1), CKR_OBJECT_HANDLE_INVALID);
    }
    EXPECT_EQ(signWith(p11, session, other), CKR_OK);
}

INSTANTIATE_TEST_SUITE_P(Keys, DeletedKey,
                         ::testing::Values(Deletion{"unused", false, "p-256"},
                                           Deletion{"used", true, "p-256"},
                                           Deletion{"bound", true, "p-384-ne"}),
                         [](const auto& test) { return test.param.name; });

struct TokenSecret {
    std::string name;
    CK_FLAGS sessionFlags;
    CK_RV expected;
};

class DerivedTokenObject : public CardSession, public ::testing::WithParamInterface<TokenSecret> {};

// The card keeps no secret keys: the answer names the real reason for each kind of session.
TEST_P(DerivedTokenObject, IsRefusedForItsRealReason) {
    static const bool created = (createIdentity("derive token"), true);
    (void)created;
    const auto key = object(CKO_PRIVATE_KEY, "derive token");
    CK_SESSION_HANDLE own = CK_INVALID_HANDLE;
    ASSERT_EQ(p11.C_OpenSession(0, GetParam().sessionFlags, nullptr, nullptr, &own), CKR_OK);
    // The card's own public key is a valid peer: only the template can be refused.
    const Bytes ecPoint = value(object(CKO_PUBLIC_KEY, "derive token"), CKA_EC_POINT);
    CK_ECDH1_DERIVE_PARAMS params{CKD_NULL, 0, nullptr, ecPoint.size(),
                                  const_cast<CK_BYTE*>(ecPoint.data())};
    CK_MECHANISM ecdh{CKM_ECDH1_DERIVE, &params, sizeof params};
    CK_BBOOL yes = CK_TRUE;
    CK_ATTRIBUTE keyTemplate[] = {{CKA_TOKEN, &yes, sizeof yes}};
    CK_OBJECT_HANDLE derived = CK_INVALID_HANDLE;
    EXPECT_EQ(p11.C_DeriveKey(own, &ecdh, key, keyTemplate, 1, &derived), GetParam().expected);
    EXPECT_EQ(p11.C_CloseSession(own), CKR_OK);
}

INSTANTIATE_TEST_SUITE_P(
    Sessions, DerivedTokenObject,
    ::testing::Values(TokenSecret{"ReadOnly", CKF_SERIAL_SESSION, CKR_SESSION_READ_ONLY},
                      TokenSecret{"ReadWrite", CKF_SERIAL_SESSION | CKF_RW_SESSION,
                                  CKR_ATTRIBUTE_VALUE_INVALID}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace keyloft::testing
