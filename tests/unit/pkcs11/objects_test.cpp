#include <openssl/x509.h>

#include "card_session.hpp"
#include "encoding/hex.hpp"
#include "platform/crypto/digest.hpp"

namespace keyloft::testing {
namespace {

using Objects = CardSession;

bool flag(const Bytes& value) {
    return value.size() == 1 && value[0] == CK_TRUE;
}

Bytes subjectOf(const Bytes& certificate) {
    const unsigned char* cursor = certificate.data();
    std::unique_ptr<X509, decltype(&X509_free)> x509(
        d2i_X509(nullptr, &cursor, static_cast<long>(certificate.size())), X509_free);
    unsigned char* der = nullptr;
    const int size = i2d_X509_NAME(X509_get_subject_name(x509.get()), &der);
    Bytes out(der, der + size);
    OPENSSL_free(der);
    return out;
}

struct Custody {
    std::string keyType;
    bool bound;
};

class EveryIdentity : public CardSession, public ::testing::WithParamInterface<Custody> {};

TEST_P(EveryIdentity, AppearsAsCertificateAndKeyPair) {
    const std::string label = "objects " + GetParam().keyType;
    createIdentity(label, GetParam().keyType);
    const auto certificate = object(CKO_CERTIFICATE, label);
    const auto publicKey = object(CKO_PUBLIC_KEY, label);
    const auto privateKey = object(CKO_PRIVATE_KEY, label);

    // The id is the SHA-1 of the public point, which CKA_EC_POINT wraps in an OCTET STRING.
    const Bytes point = value(publicKey, CKA_EC_POINT);
    ASSERT_GT(point.size(), 2U);
    const std::size_t header = point[1] < 0x80 ? 2 : 2 + (point[1] & 0x7FU);
    const Bytes id = platform::crypto::sha1(ByteView(point).subspan(header));
    for (const auto handle : {certificate, publicKey, privateKey})
        EXPECT_EQ(value(handle, CKA_ID), id);

    const Bytes der = value(certificate, CKA_VALUE);
    EXPECT_EQ(value(certificate, CKA_SUBJECT), subjectOf(der));
    EXPECT_EQ(value(privateKey, CKA_SUBJECT), subjectOf(der));
    EXPECT_EQ(value(privateKey, CKA_EC_PARAMS), value(publicKey, CKA_EC_PARAMS));
    EXPECT_TRUE(flag(value(privateKey, CKA_SIGN)));
    EXPECT_TRUE(flag(value(privateKey, CKA_DERIVE)));
    EXPECT_FALSE(flag(value(privateKey, CKA_DECRYPT)));
    EXPECT_TRUE(flag(value(privateKey, CKA_SENSITIVE)));
    EXPECT_FALSE(flag(value(privateKey, CKA_EXTRACTABLE)));
    EXPECT_EQ(flag(value(privateKey, CKA_NEVER_EXTRACTABLE)), GetParam().bound);
    EXPECT_EQ(flag(value(privateKey, CKA_ALWAYS_SENSITIVE)), GetParam().bound);

    CK_ATTRIBUTE secret{CKA_VALUE, nullptr, 0};
    EXPECT_EQ(p11.C_GetAttributeValue(session, privateKey, &secret, 1), CKR_ATTRIBUTE_SENSITIVE);
    EXPECT_EQ(secret.ulValueLen, CK_UNAVAILABLE_INFORMATION);
}

INSTANTIATE_TEST_SUITE_P(KeyTypes, EveryIdentity,
                         ::testing::Values(Custody{"p-256", false}, Custody{"p-384", false},
                                           Custody{"p-521", false}, Custody{"p-256-ne", true},
                                           Custody{"p-384-ne", true}),
                         [](const auto& test) {
                             std::string name = test.param.keyType;
                             std::erase(name, '-');
                             return name;
                         });

TEST_F(Objects, ChangesByTheToolShowAtTheNextSearch) {
    createIdentity("stays");
    const auto kept = object(CKO_PRIVATE_KEY, "stays");
    createIdentity("arrives");
    EXPECT_NE(object(CKO_PRIVATE_KEY, "arrives"), CK_INVALID_HANDLE);
    EXPECT_EQ(object(CKO_PRIVATE_KEY, "stays"), kept);

    runTool({"delete-identity", "-h", encoding::toHexString(value(kept, CKA_ID))});
    const std::string label = "stays";
    const CK_OBJECT_CLASS privateKey = CKO_PRIVATE_KEY;
    EXPECT_TRUE(find({attribute(CKA_CLASS, &privateKey, sizeof privateKey),
                      attribute(CKA_LABEL, label.data(), label.size())})
                    .empty());
    CK_ATTRIBUTE request{CKA_ID, nullptr, 0};
    EXPECT_EQ(p11.C_GetAttributeValue(session, kept, &request, 1), CKR_OBJECT_HANDLE_INVALID);
}

TEST_F(Objects, AttributeBuffersFollowTheTwoCallConvention) {
    createIdentity("buffers");
    const auto certificate = object(CKO_CERTIFICATE, "buffers");
    const Bytes der = value(certificate, CKA_VALUE);

    Bytes small(der.size() - 1);
    CK_BYTE label[64];
    CK_ATTRIBUTE requests[] = {{CKA_VALUE, small.data(), small.size()},
                               {CKA_LABEL, label, sizeof label},
                               {CKA_MODULUS, nullptr, 0}};
    // Every attribute is answered; the failures are reported once.
    const CK_RV rv = p11.C_GetAttributeValue(session, certificate, requests, 3);
    EXPECT_TRUE(rv == CKR_BUFFER_TOO_SMALL || rv == CKR_ATTRIBUTE_TYPE_INVALID) << rv;
    EXPECT_EQ(requests[0].ulValueLen, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(label), requests[1].ulValueLen), "buffers");
    EXPECT_EQ(requests[2].ulValueLen, CK_UNAVAILABLE_INFORMATION);
}

TEST_F(Objects, SearchesMatchWholeValuesAndResumeWhereTheyStopped) {
    createIdentity("search one");
    createIdentity("search two");
    const CK_OBJECT_CLASS certificates = CKO_CERTIFICATE;
    const auto all = find({attribute(CKA_CLASS, &certificates, sizeof certificates)});
    ASSERT_GE(all.size(), 2U);

    const std::string prefix = "search";
    EXPECT_TRUE(find({attribute(CKA_LABEL, prefix.data(), prefix.size())}).empty());

    CK_ATTRIBUTE byClass = attribute(CKA_CLASS, &certificates, sizeof certificates);
    ASSERT_EQ(p11.C_FindObjectsInit(session, &byClass, 1), CKR_OK);
    std::vector<CK_OBJECT_HANDLE> oneByOne;
    CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
    CK_ULONG count = 0;
    while (p11.C_FindObjects(session, &handle, 1, &count) == CKR_OK && count == 1)
        oneByOne.push_back(handle);
    EXPECT_EQ(p11.C_FindObjectsFinal(session), CKR_OK);
    EXPECT_EQ(oneByOne, all);
}

}  // namespace
}  // namespace keyloft::testing
