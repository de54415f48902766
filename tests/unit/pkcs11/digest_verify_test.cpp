// Digests and signature checks: computed by the module, compared with the platform's digests and
// with the module's own signatures.
#include "card_session.hpp"
#include "platform/crypto/digest.hpp"

namespace keyloft::testing {
namespace {

using platform::crypto::DigestAlgorithm;

struct DigestCase {
    std::string name;
    CK_MECHANISM_TYPE mechanism;
    DigestAlgorithm algorithm;
};

class Digests : public CardSession, public ::testing::WithParamInterface<DigestCase> {
  protected:
    CK_MECHANISM mechanism{GetParam().mechanism, nullptr, 0};
    const Bytes message = bytesOf("a message digested in one part or in three");
};

TEST_P(Digests, InOneCallAndInPartsMatchThePlatform) {
    const Bytes expected = platform::crypto::digest(GetParam().algorithm, message);
    auto* data = const_cast<CK_BYTE*>(message.data());

    ASSERT_EQ(p11.C_DigestInit(session, &mechanism), CKR_OK);
    CK_ULONG size = 0;
    ASSERT_EQ(p11.C_Digest(session, data, message.size(), nullptr, &size), CKR_OK);
    ASSERT_EQ(size, expected.size());
    Bytes small(size - 1);
    CK_ULONG smallSize = small.size();
    // Too small a buffer keeps the operation for the retry.
    EXPECT_EQ(p11.C_Digest(session, data, message.size(), small.data(), &smallSize),
              CKR_BUFFER_TOO_SMALL);
    Bytes once(size);
    ASSERT_EQ(p11.C_Digest(session, data, message.size(), once.data(), &size), CKR_OK);
    EXPECT_EQ(once, expected);
    EXPECT_EQ(p11.C_Digest(session, data, message.size(), once.data(), &size),
              CKR_OPERATION_NOT_INITIALIZED);

    ASSERT_EQ(p11.C_DigestInit(session, &mechanism), CKR_OK);
    for (std::size_t start = 0; start < message.size(); start += 16) {
        ASSERT_EQ(p11.C_DigestUpdate(session, data + start,
                                     std::min<std::size_t>(16, message.size() - start)),
                  CKR_OK);
    }
    // The one-call form cannot finish a digest fed in parts.
    EXPECT_EQ(p11.C_Digest(session, data, 1, once.data(), &size), CKR_OPERATION_ACTIVE);
    ASSERT_EQ(p11.C_DigestInit(session, &mechanism), CKR_OK);
    ASSERT_EQ(p11.C_DigestUpdate(session, data, message.size()), CKR_OK);
    Bytes parts(expected.size());
    size = parts.size();
    ASSERT_EQ(p11.C_DigestFinal(session, parts.data(), &size), CKR_OK);
    EXPECT_EQ(parts, expected);

    CK_MECHANISM_INFO info{};
    ASSERT_EQ(p11.C_GetMechanismInfo(0, GetParam().mechanism, &info), CKR_OK);
    EXPECT_EQ(info.flags, static_cast<CK_FLAGS>(CKF_DIGEST));
}

INSTANTIATE_TEST_SUITE_P(
    Mechanisms, Digests,
    ::testing::Values(DigestCase{"Sha1", CKM_SHA_1, DigestAlgorithm::sha1},
                      DigestCase{"Sha224", CKM_SHA224, DigestAlgorithm::sha224},
                      DigestCase{"Sha256", CKM_SHA256, DigestAlgorithm::sha256},
                      DigestCase{"Sha384", CKM_SHA384, DigestAlgorithm::sha384},
                      DigestCase{"Sha512", CKM_SHA512, DigestAlgorithm::sha512}),
    [](const auto& test) { return test.param.name; });

// Only a secret whose value the module holds can be digested.
TEST_F(CardSession, DigestKeyTakesDerivedSecretsOnly) {
    createIdentity("digest key");
    const auto key = object(CKO_PRIVATE_KEY, "digest key");
    const Bytes peer = value(object(CKO_PUBLIC_KEY, "digest key"), CKA_EC_POINT);
    CK_ECDH1_DERIVE_PARAMS params{CKD_NULL, 0, nullptr, peer.size(),
                                  const_cast<CK_BYTE*>(peer.data())};
    CK_MECHANISM ecdh{CKM_ECDH1_DERIVE, &params, sizeof params};
    CK_OBJECT_HANDLE secret = CK_INVALID_HANDLE;
    ASSERT_EQ(p11.C_DeriveKey(session, &ecdh, key, nullptr, 0, &secret), CKR_OK);

    CK_MECHANISM sha256{CKM_SHA256, nullptr, 0};
    ASSERT_EQ(p11.C_DigestInit(session, &sha256), CKR_OK);
    EXPECT_EQ(p11.C_DigestKey(session, key), CKR_KEY_INDIGESTIBLE);
    ASSERT_EQ(p11.C_DigestInit(session, &sha256), CKR_OK);
    ASSERT_EQ(p11.C_DigestKey(session, secret), CKR_OK);
    Bytes digest(32);
    CK_ULONG size = digest.size();
    ASSERT_EQ(p11.C_DigestFinal(session, digest.data(), &size), CKR_OK);
    EXPECT_EQ(digest, platform::crypto::digest(DigestAlgorithm::sha256, value(secret, CKA_VALUE)));
}

struct VerifyCase {
    std::string keyType;
    CK_MECHANISM_TYPE mechanism;
};

class Verification : public CardSession, public ::testing::WithParamInterface<VerifyCase> {
  protected:
    CK_RV verify(CK_OBJECT_HANDLE key, const Bytes& data, Bytes signature, bool inParts) {
        CK_MECHANISM mechanism{GetParam().mechanism, nullptr, 0};
        const CK_RV rv = p11.C_VerifyInit(session, &mechanism, key);
        if (rv != CKR_OK) return rv;
        auto* input = const_cast<CK_BYTE*>(data.data());
        if (!inParts) {
            return p11.C_Verify(session, input, data.size(), signature.data(), signature.size());
        }
        const std::size_t half = data.size() / 2;
        if (const CK_RV part = p11.C_VerifyUpdate(session, input, half); part != CKR_OK)
            return part;
        if (const CK_RV part = p11.C_VerifyUpdate(session, input + half, data.size() - half);
            part != CKR_OK)
            return part;
        return p11.C_VerifyFinal(session, signature.data(), signature.size());
    }
};

TEST_P(Verification, AcceptsTheCardsSignaturesAndNothingElse) {
    const std::string label =
        "verify " + GetParam().keyType + " " + std::to_string(GetParam().mechanism);
    createIdentity(label, GetParam().keyType);
    const auto privateKey = object(CKO_PRIVATE_KEY, label);
    const auto publicKey = object(CKO_PUBLIC_KEY, label);
    // CKM_ECDSA takes a digest; the others hash the message themselves.
    const Bytes data = platform::crypto::digest(DigestAlgorithm::sha256, bytesOf("verified"));
    const Bytes signature = sign(privateKey, {GetParam().mechanism, nullptr, 0}, data);

    EXPECT_EQ(verify(publicKey, data, signature, false), CKR_OK);
    EXPECT_EQ(verify(publicKey, data, signature, true), CKR_OK);
    Bytes tampered = signature;
    tampered[tampered.size() / 2] ^= 0x01;
    EXPECT_EQ(verify(publicKey, data, tampered, false), CKR_SIGNATURE_INVALID);
    Bytes otherData = data;
    otherData[0] ^= 0x80;
    EXPECT_EQ(verify(publicKey, otherData, signature, true), CKR_SIGNATURE_INVALID);
    EXPECT_EQ(verify(publicKey, data, Bytes(signature.begin(), signature.end() - 1), false),
              CKR_SIGNATURE_LEN_RANGE);
    // Verification is the public key's work.
    EXPECT_EQ(verify(privateKey, data, signature, false), CKR_KEY_TYPE_INCONSISTENT);

    CK_MECHANISM_INFO info{};
    ASSERT_EQ(p11.C_GetMechanismInfo(0, GetParam().mechanism, &info), CKR_OK);
    EXPECT_EQ(info.flags & (CKF_SIGN | CKF_VERIFY), static_cast<CK_FLAGS>(CKF_SIGN | CKF_VERIFY));
}

INSTANTIATE_TEST_SUITE_P(
    Mechanisms, Verification,
    ::testing::Values(VerifyCase{"p-256", CKM_ECDSA}, VerifyCase{"p-256-ne", CKM_ECDSA_SHA256},
                      VerifyCase{"p-384", CKM_ECDSA_SHA1}, VerifyCase{"p-384", CKM_ECDSA_SHA384},
                      VerifyCase{"p-521", CKM_ECDSA_SHA512}, VerifyCase{"p-521", CKM_ECDSA_SHA224}),
    [](const auto& test) {
        std::string name = test.param.keyType;
        std::erase(name, '-');
        return name + "_" + std::to_string(test.param.mechanism);
    });

// A length query of the one-call form keeps the operation open for that form only: mixing the
// forms would finish over no data, or over the data twice.
struct MixedCalls {
    std::string name;
    CK_RV (*start)(CK_FUNCTION_LIST&, CK_SESSION_HANDLE, CK_OBJECT_HANDLE);
    CK_RV (*first)(CK_FUNCTION_LIST&, CK_SESSION_HANDLE);
    CK_RV (*second)(CK_FUNCTION_LIST&, CK_SESSION_HANDLE);
};

CK_BYTE mixedData[] = "mixed";
CK_BYTE mixedOut[512];
CK_ULONG mixedSize = 0;
CK_MECHANISM mixedSha256{CKM_SHA256, nullptr, 0};
CK_MECHANISM mixedEcdsa{CKM_ECDSA_SHA256, nullptr, 0};

CK_RV startDigest(CK_FUNCTION_LIST& p11, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE) {
    return p11.C_DigestInit(session, &mixedSha256);
}
CK_RV startSign(CK_FUNCTION_LIST& p11, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key) {
    return p11.C_SignInit(session, &mixedEcdsa, key);
}
CK_RV digestLength(CK_FUNCTION_LIST& p11, CK_SESSION_HANDLE session) {
    return p11.C_Digest(session, mixedData, 5, nullptr, &mixedSize);
}
CK_RV digestPart(CK_FUNCTION_LIST& p11, CK_SESSION_HANDLE session) {
    return p11.C_DigestUpdate(session, mixedData, 5);
}
CK_RV digestFinal(CK_FUNCTION_LIST& p11, CK_SESSION_HANDLE session) {
    mixedSize = sizeof mixedOut;
    return p11.C_DigestFinal(session, mixedOut, &mixedSize);
}
CK_RV signLength(CK_FUNCTION_LIST& p11, CK_SESSION_HANDLE session) {
    return p11.C_Sign(session, mixedData, 5, nullptr, &mixedSize);
}
CK_RV signPart(CK_FUNCTION_LIST& p11, CK_SESSION_HANDLE session) {
    return p11.C_SignUpdate(session, mixedData, 5);
}
CK_RV signFinal(CK_FUNCTION_LIST& p11, CK_SESSION_HANDLE session) {
    mixedSize = sizeof mixedOut;
    return p11.C_SignFinal(session, mixedOut, &mixedSize);
}
CK_RV signWhole(CK_FUNCTION_LIST& p11, CK_SESSION_HANDLE session) {
    mixedSize = sizeof mixedOut;
    return p11.C_Sign(session, mixedData, 5, mixedOut, &mixedSize);
}

class MixedCallForms : public CardSession, public ::testing::WithParamInterface<MixedCalls> {};

TEST_P(MixedCallForms, AnswerOperationActive) {
    // One identity serves every case, also when they all run in one process.
    static const bool created = (createIdentity("mixed calls"), true);
    (void)created;
    const auto key = object(CKO_PRIVATE_KEY, "mixed calls");
    ASSERT_EQ(GetParam().start(p11, session, key), CKR_OK);
    ASSERT_EQ(GetParam().first(p11, session), CKR_OK);
    EXPECT_EQ(GetParam().second(p11, session), CKR_OPERATION_ACTIVE);
}

INSTANTIATE_TEST_SUITE_P(
    Calls, MixedCallForms,
    ::testing::Values(MixedCalls{"DigestLengthThenFinal", startDigest, digestLength, digestFinal},
                      MixedCalls{"DigestLengthThenPart", startDigest, digestLength, digestPart},
                      MixedCalls{"SignLengthThenFinal", startSign, signLength, signFinal},
                      MixedCalls{"SignLengthThenPart", startSign, signLength, signPart},
                      MixedCalls{"SignPartThenWhole", startSign, signPart, signWhole}),
    [](const auto& testCase) { return testCase.param.name; });

}  // namespace
}  // namespace keyloft::testing
