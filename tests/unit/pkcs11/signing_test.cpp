#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <atomic>
#include <thread>

#include "card_session.hpp"
#include "platform/crypto/digest.hpp"

namespace keyloft::testing {
namespace {

using EvpKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

EvpKey publicKeyOf(const Bytes& certificate) {
    const unsigned char* cursor = certificate.data();
    std::unique_ptr<X509, decltype(&X509_free)> x509(
        d2i_X509(nullptr, &cursor, static_cast<long>(certificate.size())), X509_free);
    return {X509_get_pubkey(x509.get()), EVP_PKEY_free};
}

// Checks a raw r || s signature over a digest with OpenSSL.
bool verifiesOverDigest(EVP_PKEY* key, const Bytes& raw, const Bytes& digest) {
    const auto half = static_cast<int>(raw.size() / 2);
    ECDSA_SIG* signature = ECDSA_SIG_new();
    ECDSA_SIG_set0(signature, BN_bin2bn(raw.data(), half, nullptr),
                   BN_bin2bn(raw.data() + half, half, nullptr));
    unsigned char* der = nullptr;
    const int size = i2d_ECDSA_SIG(signature, &der);
    ECDSA_SIG_free(signature);
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new(key, nullptr), EVP_PKEY_CTX_free);
    const bool good = EVP_PKEY_verify_init(context.get()) == 1 &&
                      EVP_PKEY_verify(context.get(), der, static_cast<std::size_t>(size),
                                      digest.data(), digest.size()) == 1;
    OPENSSL_free(der);
    return good;
}

struct SignCase {
    std::string keyType;
    CK_MECHANISM_TYPE mechanism;
    platform::crypto::DigestAlgorithm digest;  // what the signature covers in the end
    bool digestFirst;                          // the caller hashes (CKM_ECDSA)
    std::size_t signatureSize;
};

class Signing : public CardSession, public ::testing::WithParamInterface<SignCase> {};

TEST_P(Signing, RawSignaturesVerifyWithOpenSsl) {
    const auto& param = GetParam();
    const std::string label = "sign " + param.keyType + " " + std::to_string(param.mechanism);
    createIdentity(label, param.keyType);
    const auto key = object(CKO_PRIVATE_KEY, label);
    const auto publicKey = publicKeyOf(value(object(CKO_CERTIFICATE, label), CKA_VALUE));

    const Bytes message = bytesOf("a message to sign");
    const Bytes digest = platform::crypto::digest(param.digest, message);
    const Bytes signature =
        sign(key, {param.mechanism, nullptr, 0}, param.digestFirst ? digest : message);
    EXPECT_EQ(signature.size(), param.signatureSize);
    EXPECT_TRUE(verifiesOverDigest(publicKey.get(), signature, digest));
}

TEST_P(Signing, InPartsEqualsInOne) {
    const auto& param = GetParam();
    const std::string label = "parts " + param.keyType + " " + std::to_string(param.mechanism);
    createIdentity(label, param.keyType);
    const auto key = object(CKO_PRIVATE_KEY, label);
    const auto publicKey = publicKeyOf(value(object(CKO_CERTIFICATE, label), CKA_VALUE));

    Bytes input = bytesOf("a message to sign");
    if (param.digestFirst) input = platform::crypto::digest(param.digest, input);
    CK_MECHANISM mechanism{param.mechanism, nullptr, 0};
    ASSERT_EQ(p11.C_SignInit(session, &mechanism, key), CKR_OK);
    const std::size_t half = input.size() / 2;
    ASSERT_EQ(p11.C_SignUpdate(session, input.data(), half), CKR_OK);
    ASSERT_EQ(p11.C_SignUpdate(session, input.data() + half, input.size() - half), CKR_OK);
    Bytes signature(param.signatureSize);
    CK_ULONG size = 1;
    // Too small a buffer keeps the operation going.
    ASSERT_EQ(p11.C_SignFinal(session, signature.data(), &size), CKR_BUFFER_TOO_SMALL);
    ASSERT_EQ(size, param.signatureSize);
    ASSERT_EQ(p11.C_SignFinal(session, signature.data(), &size), CKR_OK);
    EXPECT_TRUE(
        verifiesOverDigest(publicKey.get(), signature,
                           platform::crypto::digest(param.digest, bytesOf("a message to sign"))));
    EXPECT_EQ(p11.C_SignFinal(session, signature.data(), &size), CKR_OPERATION_NOT_INITIALIZED);
}

using platform::crypto::DigestAlgorithm;
INSTANTIATE_TEST_SUITE_P(
    KeysAndMechanisms, Signing,
    ::testing::Values(SignCase{"p-256", CKM_ECDSA, DigestAlgorithm::sha256, true, 64},
                      SignCase{"p-256", CKM_ECDSA_SHA256, DigestAlgorithm::sha256, false, 64},
                      SignCase{"p-256", CKM_ECDSA_SHA1, DigestAlgorithm::sha1, false, 64},
                      SignCase{"p-384", CKM_ECDSA_SHA384, DigestAlgorithm::sha384, false, 96},
                      SignCase{"p-521", CKM_ECDSA_SHA512, DigestAlgorithm::sha512, false, 132},
                      SignCase{"p-256-ne", CKM_ECDSA, DigestAlgorithm::sha256, true, 64},
                      SignCase{"p-384-ne", CKM_ECDSA_SHA224, DigestAlgorithm::sha224, false, 96}));

TEST_F(CardSession, SessionsOfSeveralThreadsSignAtOnce) {
    createIdentity("threads");
    const auto key = object(CKO_PRIVATE_KEY, "threads");
    const auto publicKey = publicKeyOf(value(object(CKO_CERTIFICATE, "threads"), CKA_VALUE));
    const Bytes digest =
        platform::crypto::digest(platform::crypto::DigestAlgorithm::sha256, bytesOf("threads"));
    std::atomic<int> verified = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            CK_SESSION_HANDLE own = CK_INVALID_HANDLE;
            if (p11.C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &own) != CKR_OK) return;
            for (int i = 0; i < 25; ++i) {
                CK_MECHANISM mechanism{CKM_ECDSA, nullptr, 0};
                Bytes signature(64);
                CK_ULONG size = signature.size();
                auto* input = const_cast<CK_BYTE*>(digest.data());
                if (p11.C_SignInit(own, &mechanism, key) == CKR_OK &&
                    p11.C_Sign(own, input, digest.size(), signature.data(), &size) == CKR_OK &&
                    verifiesOverDigest(publicKey.get(), signature, digest)) {
                    ++verified;
                }
            }
            p11.C_CloseSession(own);
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(verified, 100);
}

class Derivation : public CardSession, public ::testing::WithParamInterface<std::string> {};

TEST_P(Derivation, Ecdh1AgreesWithOpenSsl) {
    const std::string label = "derive " + GetParam();
    createIdentity(label, GetParam());
    const auto key = object(CKO_PRIVATE_KEY, label);
    const auto ours = publicKeyOf(value(object(CKO_CERTIFICATE, label), CKA_VALUE));

    EvpKey peer(EVP_EC_gen(GetParam().starts_with("p-256") ? "P-256" : "P-384"), EVP_PKEY_free);
    unsigned char* point = nullptr;
    const std::size_t pointSize = EVP_PKEY_get1_encoded_public_key(peer.get(), &point);
    CK_ECDH1_DERIVE_PARAMS params{CKD_NULL, 0, nullptr, pointSize, point};
    CK_MECHANISM mechanism{CKM_ECDH1_DERIVE, &params, sizeof params};
    CK_OBJECT_CLASS secretClass = CKO_SECRET_KEY;
    CK_KEY_TYPE generic = CKK_GENERIC_SECRET;
    CK_ATTRIBUTE keyTemplate[] = {{CKA_CLASS, &secretClass, sizeof secretClass},
                                  {CKA_KEY_TYPE, &generic, sizeof generic}};
    CK_OBJECT_HANDLE secret = CK_INVALID_HANDLE;
    ASSERT_EQ(p11.C_DeriveKey(session, &mechanism, key, keyTemplate, 2, &secret), CKR_OK);
    OPENSSL_free(point);

    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new(peer.get(), nullptr), EVP_PKEY_CTX_free);
    std::size_t size = 0;
    ASSERT_EQ(EVP_PKEY_derive_init(context.get()), 1);
    ASSERT_EQ(EVP_PKEY_derive_set_peer(context.get(), ours.get()), 1);
    ASSERT_EQ(EVP_PKEY_derive(context.get(), nullptr, &size), 1);
    Bytes expected(size);
    ASSERT_EQ(EVP_PKEY_derive(context.get(), expected.data(), &size), 1);
    EXPECT_EQ(value(secret, CKA_VALUE), expected);

    // The secret is a session object, gone with its session.
    EXPECT_EQ(p11.C_DestroyObject(session, secret), CKR_OK);
    EXPECT_EQ(p11.C_DestroyObject(session, secret), CKR_OBJECT_HANDLE_INVALID);
}

INSTANTIATE_TEST_SUITE_P(Keys, Derivation, ::testing::Values("p-256", "p-384-ne"),
                         [](const auto& test) {
                             std::string name = test.param;
                             std::erase(name, '-');
                             return name;
                         });

}  // namespace
}  // namespace keyloft::testing
