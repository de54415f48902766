// RSA public keys encrypt through the module, and what they encrypt the private key decrypts; the
// halves of every key pair agree on what they can do.
#include "card_session.hpp"

namespace keyloft::testing {
namespace {

class Encryption : public CardSession {
  protected:
    void SetUp() override {
        CardSession::SetUp();
        static const bool created = (createIdentity("encryption rsa", "rsa-2048"),
                                     createIdentity("encryption ec", "p-256"), true);
        (void)created;
    }

    Bytes encrypt(CK_MECHANISM mechanism, ByteView message, CK_RV expected = CKR_OK) const {
        const auto key = object(CKO_PUBLIC_KEY, "encryption rsa");
        EXPECT_EQ(p11.C_EncryptInit(session, &mechanism, key), CKR_OK);
        auto* input = const_cast<CK_BYTE*>(message.data());
        CK_ULONG size = 0;
        EXPECT_EQ(p11.C_Encrypt(session, input, message.size(), nullptr, &size), CKR_OK);
        Bytes out(size);
        EXPECT_EQ(p11.C_Encrypt(session, input, message.size(), out.data(), &size), expected);
        out.resize(expected == CKR_OK ? size : 0);
        return out;
    }
};

TEST_F(Encryption, OaepCiphertextsDecryptWithThePrivateKey) {
    CK_BYTE label[] = {'a', 'b', 'c'};
    CK_RSA_PKCS_OAEP_PARAMS parameters{CKM_SHA256, CKG_MGF1_SHA256, CKZ_DATA_SPECIFIED, label,
                                       sizeof label};
    CK_MECHANISM oaep{CKM_RSA_PKCS_OAEP, &parameters, sizeof parameters};
    const Bytes message = bytesOf("a secret");
    const Bytes ciphertext = encrypt(oaep, message);
    ASSERT_EQ(ciphertext.size(), 256U);
    const auto key = object(CKO_PRIVATE_KEY, "encryption rsa");
    ASSERT_EQ(p11.C_DecryptInit(session, &oaep, key), CKR_OK);
    Bytes plaintext(256);
    CK_ULONG size = plaintext.size();
    ASSERT_EQ(p11.C_Decrypt(session, const_cast<CK_BYTE*>(ciphertext.data()), ciphertext.size(),
                            plaintext.data(), &size),
              CKR_OK);
    plaintext.resize(size);
    EXPECT_EQ(plaintext, message);
}

TEST_F(Encryption, RefusesWhatItCannotDo) {
    CK_MECHANISM pkcs1{CKM_RSA_PKCS, nullptr, 0};
    EXPECT_EQ(encrypt(pkcs1, bytesOf("short")).size(), 256U);
    encrypt(pkcs1, Bytes(246, 1), CKR_DATA_LEN_RANGE);  // no room for the padding
    // Hash-and-sign mechanisms only sign; private keys and EC keys do not encrypt here.
    CK_MECHANISM signing{CKM_SHA256_RSA_PKCS, nullptr, 0};
    EXPECT_EQ(p11.C_EncryptInit(session, &signing, object(CKO_PUBLIC_KEY, "encryption rsa")),
              CKR_MECHANISM_INVALID);
    EXPECT_EQ(p11.C_EncryptInit(session, &pkcs1, object(CKO_PRIVATE_KEY, "encryption rsa")),
              CKR_KEY_TYPE_INCONSISTENT);
    EXPECT_EQ(p11.C_EncryptInit(session, &pkcs1, object(CKO_PUBLIC_KEY, "encryption ec")),
              CKR_KEY_TYPE_INCONSISTENT);
    CK_MECHANISM_INFO info{};
    ASSERT_EQ(p11.C_GetMechanismInfo(0, CKM_RSA_PKCS_OAEP, &info), CKR_OK);
    EXPECT_EQ(info.flags, static_cast<CK_FLAGS>(CKF_ENCRYPT | CKF_DECRYPT));
    ASSERT_EQ(p11.C_GetMechanismInfo(0, CKM_SHA256_RSA_PKCS, &info), CKR_OK);
    EXPECT_EQ(info.flags & CKF_ENCRYPT, 0U);
}

TEST_F(Encryption, KeyPairHalvesAgreeOnTheirUses) {
    const std::pair<CK_ATTRIBUTE_TYPE, CK_ATTRIBUTE_TYPE> pairs[] = {
        {CKA_SIGN, CKA_VERIFY}, {CKA_DECRYPT, CKA_ENCRYPT}, {CKA_DERIVE, CKA_DERIVE}};
    for (const auto* label : {"encryption rsa", "encryption ec"}) {
        const auto privateKey = object(CKO_PRIVATE_KEY, label);
        const auto publicKey = object(CKO_PUBLIC_KEY, label);
        for (const auto& [privateUse, publicUse] : pairs)
            EXPECT_EQ(value(privateKey, privateUse), value(publicKey, publicUse)) << label;
    }
}

}  // namespace
}  // namespace keyloft::testing
