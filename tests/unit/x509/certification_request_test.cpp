#include "x509/certification_request.hpp"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

#include "platform/key_service/software_key.hpp"
#include "support/test_certificates.hpp"

namespace keyloft::x509 {
namespace {

using Request = std::unique_ptr<X509_REQ, decltype(&X509_REQ_free)>;

struct KeyKind {
    const char* name;
    int ecSize;  // 0 for RSA 2048
};

platform::key_service::SoftwareKey makeKey(const KeyKind& kind) {
    if (kind.ecSize != 0) return platform::key_service::SoftwareKey::generateEC(kind.ecSize);
    const auto rsa = keyloft::testing::makeRsaKey(2048);
    unsigned char* der = nullptr;
    const int size = i2d_PrivateKey(rsa.get(), &der);
    const Bytes external(der, der + size);
    OPENSSL_free(der);
    return platform::key_service::SoftwareKey::fromExternalRepresentation(keyTypeRSA, external);
}

Bytes requestDer(const platform::key_service::SoftwareKey& key, const Name& subject) {
    const auto algorithm =
        key.keyType() == keyTypeRSA
            ? platform::key_service::SignatureAlgorithm::rsaSignatureMessagePKCS1v15SHA384
            : platform::key_service::SignatureAlgorithm::ecdsaSignatureMessageX962SHA384;
    return der::encode(
        buildCertificationRequest(subject, key.publicKeyAttributes(),
                                  [&](ByteView info) { return key.sign(algorithm, info); }));
}

Request parse(const Bytes& der) {
    const unsigned char* cursor = der.data();
    Request request(d2i_X509_REQ(nullptr, &cursor, static_cast<long>(der.size())), X509_REQ_free);
    if (request && cursor != der.data() + der.size()) request.reset();
    return request;
}

const Name fullSubject{.commonName = "Alice",
                       .email = "alice@example.com",
                       .organization = "Example",
                       .organizationalUnit = "Lab",
                       .locality = "Bonn",
                       .stateOrProvince = "NRW",
                       .country = "DE"};

class Signed : public ::testing::TestWithParam<KeyKind> {};

TEST_P(Signed, OpenSslParsesAndVerifiesTheRequest) {
    const auto key = makeKey(GetParam());
    const Bytes der = requestDer(key, fullSubject);
    const auto request = parse(der);
    ASSERT_TRUE(request);
    EXPECT_EQ(X509_REQ_get_version(request.get()), 0);
    EVP_PKEY* publicKey = X509_REQ_get0_pubkey(request.get());
    ASSERT_NE(publicKey, nullptr);
    EXPECT_EQ(EVP_PKEY_eq(publicKey, key.handle()), 1);
    EXPECT_EQ(X509_REQ_verify(request.get(), publicKey), 1);
    EXPECT_EQ(X509_REQ_get_signature_nid(request.get()),
              GetParam().ecSize != 0 ? NID_ecdsa_with_SHA384 : NID_sha384WithRSAEncryption);
}

INSTANTIATE_TEST_SUITE_P(Keys, Signed,
                         ::testing::Values(KeyKind{"P256", 256}, KeyKind{"P384", 384},
                                           KeyKind{"P521", 521}, KeyKind{"RSA2048", 0}),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(Request, SubjectOrderAndStringTypes) {
    const auto key = platform::key_service::SoftwareKey::generateEC(256);
    const auto request = parse(requestDer(key, fullSubject));
    ASSERT_TRUE(request);
    const X509_NAME* name = X509_REQ_get_subject_name(request.get());
    struct Entry {
        int nid;
        int stringType;
        std::string value;
    };
    const std::vector<Entry> expected{
        {NID_commonName, V_ASN1_UTF8STRING, "Alice"},
        {NID_pkcs9_emailAddress, V_ASN1_IA5STRING, "alice@example.com"},
        {NID_organizationalUnitName, V_ASN1_UTF8STRING, "Lab"},
        {NID_organizationName, V_ASN1_UTF8STRING, "Example"},
        {NID_localityName, V_ASN1_UTF8STRING, "Bonn"},
        {NID_stateOrProvinceName, V_ASN1_UTF8STRING, "NRW"},
        {NID_countryName, V_ASN1_PRINTABLESTRING, "DE"}};
    ASSERT_EQ(X509_NAME_entry_count(name), static_cast<int>(expected.size()));
    for (int i = 0; i < X509_NAME_entry_count(name); ++i) {
        const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
        const ASN1_STRING* data = X509_NAME_ENTRY_get_data(entry);
        EXPECT_EQ(OBJ_obj2nid(X509_NAME_ENTRY_get_object(entry)), expected[i].nid) << i;
        EXPECT_EQ(ASN1_STRING_type(data), expected[i].stringType) << i;
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(data)),
                              static_cast<std::size_t>(ASN1_STRING_length(data))),
                  expected[i].value)
            << i;
        // One attribute per RDN.
        EXPECT_EQ(X509_NAME_ENTRY_set(entry), i);
    }
}

TEST(Request, TextOutsideThePrintableSetKeepsEveryCharacter) {
    const auto key = platform::key_service::SoftwareKey::generateEC(256);
    const auto request = parse(
        requestDer(key, {.commonName = "\xC3\xA9", .organization = "A&B", .country = "\xC3\x9C"}));
    ASSERT_TRUE(request);
    const X509_NAME* name = X509_REQ_get_subject_name(request.get());
    ASSERT_EQ(X509_NAME_entry_count(name), 3);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(ASN1_STRING_type(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, i))),
                  V_ASN1_UTF8STRING);
    }
    const ASN1_STRING* country = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, 2));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(country)),
                          static_cast<std::size_t>(ASN1_STRING_length(country))),
              "\xC3\x9C");
}

TEST(Request, EmptySubjectIsAnEmptyName) {
    const auto key = platform::key_service::SoftwareKey::generateEC(384);
    const Bytes der = requestDer(key, {});
    const auto request = parse(der);
    ASSERT_TRUE(request);
    EXPECT_EQ(X509_NAME_entry_count(X509_REQ_get_subject_name(request.get())), 0);
    EXPECT_EQ(X509_REQ_verify(request.get(), X509_REQ_get0_pubkey(request.get())), 1);
}

TEST(Request, AsksForEveryKeyUsage) {
    const auto key = platform::key_service::SoftwareKey::generateEC(256);
    const Bytes der = requestDer(key, fullSubject);
    // extensionRequest { keyUsage critical, nine named bits: digitalSignature to decipherOnly }.
    const Bytes attribute{0x30, 0x20, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09,
                          0x0E, 0x31, 0x13, 0x30, 0x11, 0x30, 0x0F, 0x06, 0x03, 0x55, 0x1D, 0x0F,
                          0x01, 0x01, 0xFF, 0x04, 0x05, 0x03, 0x03, 0x07, 0xFF, 0x80};
    EXPECT_NE(std::search(der.begin(), der.end(), attribute.begin(), attribute.end()), der.end());

    const auto request = parse(der);
    ASSERT_TRUE(request);
    std::unique_ptr<STACK_OF(X509_EXTENSION), void (*)(STACK_OF(X509_EXTENSION)*)> extensions(
        X509_REQ_get_extensions(request.get()), [](STACK_OF(X509_EXTENSION) * list) {
            sk_X509_EXTENSION_pop_free(list, X509_EXTENSION_free);
        });
    ASSERT_TRUE(extensions);
    ASSERT_EQ(sk_X509_EXTENSION_num(extensions.get()), 1);
    X509_EXTENSION* keyUsage = sk_X509_EXTENSION_value(extensions.get(), 0);
    EXPECT_EQ(OBJ_obj2nid(X509_EXTENSION_get_object(keyUsage)), NID_key_usage);
    EXPECT_EQ(X509_EXTENSION_get_critical(keyUsage), 1);
    std::unique_ptr<ASN1_BIT_STRING, decltype(&ASN1_BIT_STRING_free)> bits(
        static_cast<ASN1_BIT_STRING*>(X509V3_EXT_d2i(keyUsage)), ASN1_BIT_STRING_free);
    ASSERT_TRUE(bits);
    for (int bit = 0; bit < 9; ++bit) EXPECT_EQ(ASN1_BIT_STRING_get_bit(bits.get(), bit), 1) << bit;
    EXPECT_EQ(ASN1_BIT_STRING_get_bit(bits.get(), 9), 0);
}

}  // namespace
}  // namespace keyloft::x509
