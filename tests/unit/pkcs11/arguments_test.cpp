#include <functional>

#include "card_session.hpp"

namespace keyloft::testing {
namespace {

struct Call {
    std::string name;
    std::function<CK_RV(CK_FUNCTION_LIST&, CK_SESSION_HANDLE, CK_OBJECT_HANDLE)> run;
    CK_RV expected;
};

class Arguments : public CardSession, public ::testing::WithParamInterface<Call> {
  protected:
    void SetUp() override {
        CardSession::SetUp();
        // One identity serves every case, also when they all run in one process.
        static const bool created = (createIdentity("arguments"), true);
        (void)created;
        key = object(CKO_PRIVATE_KEY, "arguments");
    }
    CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
};

TEST_P(Arguments, AreAnsweredWithTheirReturnValue) {
    EXPECT_EQ(GetParam().run(p11, session, key), GetParam().expected);
}

CK_MECHANISM ecdsa{CKM_ECDSA, nullptr, 0};
CK_BYTE buffer[512];
CK_ULONG length = sizeof buffer;
CK_ULONG count = 0;

const Call calls[] = {
    {"NullInfo", [](auto& p, auto, auto) { return p.C_GetInfo(nullptr); }, CKR_ARGUMENTS_BAD},
    {"NullSlotCount",
     [](auto& p, auto, auto) { return p.C_GetSlotList(CK_TRUE, nullptr, nullptr); },
     CKR_ARGUMENTS_BAD},
    {"SlotListTooSmall",
     [](auto& p, auto, auto) {
         CK_SLOT_ID slot = 0;
         CK_ULONG none = 0;
         return p.C_GetSlotList(CK_TRUE, &slot, &none);
     },
     CKR_BUFFER_TOO_SMALL},
    {"UnknownSlot",
     [](auto& p, auto, auto) {
         CK_TOKEN_INFO info;
         return p.C_GetTokenInfo(7, &info);
     },
     CKR_SLOT_ID_INVALID},
    {"NullTokenInfo", [](auto& p, auto, auto) { return p.C_GetTokenInfo(0, nullptr); },
     CKR_ARGUMENTS_BAD},
    {"CreateObjectWithoutClass",
     [](auto& p, auto s, auto) {
         CK_OBJECT_HANDLE created;
         return p.C_CreateObject(s, nullptr, 0, &created);
     },
     CKR_TEMPLATE_INCOMPLETE},
    {"ParallelSession",
     [](auto& p, auto, auto) {
         CK_SESSION_HANDLE other = 0;
         return p.C_OpenSession(0, 0, nullptr, nullptr, &other);
     },
     CKR_SESSION_PARALLEL_NOT_SUPPORTED},
    {"NullSessionHandle",
     [](auto& p, auto, auto) {
         return p.C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, nullptr);
     },
     CKR_ARGUMENTS_BAD},
    {"UnknownSession", [](auto& p, auto, auto) { return p.C_CloseSession(999); },
     CKR_SESSION_HANDLE_INVALID},
    {"UnknownObject",
     [](auto& p, auto s, auto) {
         CK_ATTRIBUTE a{CKA_ID, nullptr, 0};
         return p.C_GetAttributeValue(s, 99999, &a, 1);
     },
     CKR_OBJECT_HANDLE_INVALID},
    {"NullTemplateWithCount",
     [](auto& p, auto s, auto k) { return p.C_GetAttributeValue(s, k, nullptr, 1); },
     CKR_ARGUMENTS_BAD},
    {"NullFindTemplate", [](auto& p, auto s, auto) { return p.C_FindObjectsInit(s, nullptr, 2); },
     CKR_ARGUMENTS_BAD},
    {"FindWithoutInit",
     [](auto& p, auto s, auto) {
         CK_OBJECT_HANDLE h;
         return p.C_FindObjects(s, &h, 1, &count);
     },
     CKR_OPERATION_NOT_INITIALIZED},
    {"FindTwice",
     [](auto& p, auto s, auto) {
         p.C_FindObjectsInit(s, nullptr, 0);
         return p.C_FindObjectsInit(s, nullptr, 0);
     },
     CKR_OPERATION_ACTIVE},
    {"NullMechanism", [](auto& p, auto s, auto k) { return p.C_SignInit(s, nullptr, k); },
     CKR_ARGUMENTS_BAD},
    {"UnknownKey", [](auto& p, auto s, auto) { return p.C_SignInit(s, &ecdsa, 99999); },
     CKR_KEY_HANDLE_INVALID},
    {"UnknownMechanism",
     [](auto& p, auto s, auto k) {
         CK_MECHANISM aes{CKM_AES_CBC, nullptr, 0};
         return p.C_SignInit(s, &aes, k);
     },
     CKR_MECHANISM_INVALID},
    {"RsaMechanismOnEcKey",
     [](auto& p, auto s, auto k) {
         CK_MECHANISM rsa{CKM_SHA256_RSA_PKCS, nullptr, 0};
         return p.C_SignInit(s, &rsa, k);
     },
     CKR_KEY_TYPE_INCONSISTENT},
    {"EcdsaWithParameters",
     [](auto& p, auto s, auto k) {
         CK_MECHANISM odd{CKM_ECDSA, buffer, 4};
         return p.C_SignInit(s, &odd, k);
     },
     CKR_MECHANISM_PARAM_INVALID},
    {"DecryptWithSigningMechanism",
     [](auto& p, auto s, auto k) { return p.C_DecryptInit(s, &ecdsa, k); }, CKR_MECHANISM_INVALID},
    {"SignWithoutInit",
     [](auto& p, auto s, auto) { return p.C_Sign(s, buffer, 32, buffer, &length); },
     CKR_OPERATION_NOT_INITIALIZED},
    {"SignInitTwice",
     [](auto& p, auto s, auto k) {
         p.C_SignInit(s, &ecdsa, k);
         return p.C_SignInit(s, &ecdsa, k);
     },
     CKR_OPERATION_ACTIVE},
    {"SignNullLength",
     [](auto& p, auto s, auto k) {
         p.C_SignInit(s, &ecdsa, k);
         return p.C_Sign(s, buffer, 32, buffer, nullptr);
     },
     CKR_ARGUMENTS_BAD},
    {"SignNullData",
     [](auto& p, auto s, auto k) {
         p.C_SignInit(s, &ecdsa, k);
         return p.C_Sign(s, nullptr, 32, buffer, &length);
     },
     CKR_ARGUMENTS_BAD},
    {"EcdsaWithoutData",
     [](auto& p, auto s, auto k) {
         p.C_SignInit(s, &ecdsa, k);
         return p.C_Sign(s, buffer, 0, buffer, &length);
     },
     CKR_DATA_LEN_RANGE},
    {"DeriveWithoutParameters",
     [](auto& p, auto s, auto k) {
         CK_MECHANISM ecdh{CKM_ECDH1_DERIVE, nullptr, 0};
         CK_OBJECT_HANDLE derived;
         return p.C_DeriveKey(s, &ecdh, k, nullptr, 0, &derived);
     },
     CKR_MECHANISM_PARAM_INVALID},
    {"DeriveOffCurvePoint",
     [](auto& p, auto s, auto k) {
         CK_BYTE point[65] = {0x04, 1, 2, 3};
         CK_ECDH1_DERIVE_PARAMS params{CKD_NULL, 0, nullptr, sizeof point, point};
         CK_MECHANISM ecdh{CKM_ECDH1_DERIVE, &params, sizeof params};
         CK_OBJECT_HANDLE derived;
         return p.C_DeriveKey(s, &ecdh, k, nullptr, 0, &derived);
     },
     CKR_MECHANISM_PARAM_INVALID},
    {"DestroyInReadOnlySession", [](auto& p, auto s, auto k) { return p.C_DestroyObject(s, k); },
     CKR_SESSION_READ_ONLY},
    {"RelabelInReadOnlySession",
     [](auto& p, auto s, auto k) {
         CK_ATTRIBUTE label{CKA_LABEL, buffer, 3};
         return p.C_SetAttributeValue(s, k, &label, 1);
     },
     CKR_SESSION_READ_ONLY},
    {"LoginAsSecurityOfficer",
     [](auto& p, auto s, auto) { return p.C_Login(s, CKU_SO, nullptr, 0); },
     CKR_SESSION_READ_ONLY_EXISTS},
    {"SecurityOfficerWhileTheUserIsLoggedIn",
     [](auto& p, auto s, auto) {
         p.C_Login(s, CKU_USER, nullptr, 0);
         const CK_RV rv = p.C_Login(s, CKU_SO, nullptr, 0);
         p.C_Logout(s);
         return rv;
     },
     CKR_USER_ANOTHER_ALREADY_LOGGED_IN},
    {"LabelOfAbsurdLength",
     [](auto& p, auto, auto k) {
         CK_SESSION_HANDLE writer;
         p.C_OpenSession(0, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &writer);
         CK_ATTRIBUTE label{CKA_LABEL, buffer, static_cast<CK_ULONG>(-1)};
         const CK_RV rv = p.C_SetAttributeValue(writer, k, &label, 1);
         p.C_CloseSession(writer);
         return rv;
     },
     CKR_ATTRIBUTE_VALUE_INVALID},
    {"LogoutWithoutLogin", [](auto& p, auto s, auto) { return p.C_Logout(s); },
     CKR_USER_NOT_LOGGED_IN},
    {"InitializeTwice", [](auto& p, auto, auto) { return p.C_Initialize(nullptr); },
     CKR_CRYPTOKI_ALREADY_INITIALIZED},
    {"VerifyWithPrivateKey", [](auto& p, auto s, auto k) { return p.C_VerifyInit(s, &ecdsa, k); },
     CKR_KEY_TYPE_INCONSISTENT},
    {"DigestWithSigningMechanism", [](auto& p, auto s, auto) { return p.C_DigestInit(s, &ecdsa); },
     CKR_MECHANISM_INVALID},
};

INSTANTIATE_TEST_SUITE_P(Calls, Arguments, ::testing::ValuesIn(calls),
                         [](const auto& test) { return test.param.name; });

TEST(Initialization, RefusesBadArgumentsAndCallsBeforeIt) {
    auto& p11 = module();
    CK_SLOT_ID slot = 0;
    CK_ULONG slots = 1;
    EXPECT_EQ(p11.C_GetSlotList(CK_TRUE, &slot, &slots), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(p11.C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);

    CK_C_INITIALIZE_ARGS reserved{};
    reserved.pReserved = &slot;
    EXPECT_EQ(p11.C_Initialize(&reserved), CKR_ARGUMENTS_BAD);
    CK_C_INITIALIZE_ARGS someMutexes{};
    someMutexes.CreateMutex = [](CK_VOID_PTR_PTR) -> CK_RV { return CKR_OK; };
    EXPECT_EQ(p11.C_Initialize(&someMutexes), CKR_ARGUMENTS_BAD);

    CK_C_INITIALIZE_ARGS osLocking{};
    osLocking.flags = CKF_OS_LOCKING_OK;
    ASSERT_EQ(p11.C_Initialize(&osLocking), CKR_OK);
    EXPECT_EQ(p11.C_GetSlotList(CK_TRUE, &slot, &slots), CKR_OK);
    EXPECT_EQ(slots, 1U);
    EXPECT_EQ(p11.C_Finalize(&slot), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p11.C_Finalize(nullptr), CKR_OK);
}

}  // namespace
}  // namespace keyloft::testing
