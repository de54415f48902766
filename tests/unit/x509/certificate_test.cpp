#include "x509/certificate.hpp"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <deque>

#include "base/error.hpp"
#include "der/object_identifiers.hpp"
#include "platform/crypto/random.hpp"
#include "platform/key_service/software_key.hpp"

namespace keyloft::x509 {
namespace {

using namespace std::chrono_literals;

std::array<std::uint8_t, 16> uuid(std::uint8_t first, std::uint8_t second) {
    std::array<std::uint8_t, 16> bytes{};
    bytes.fill(0x42);
    bytes[0] = first;
    bytes[1] = second;
    return bytes;
}

UuidSource fixedUuids(std::deque<std::array<std::uint8_t, 16>> values) {
    return [values]() mutable {
        auto next = values.front();
        values.pop_front();
        return next;
    };
}

X509Certificate modelFor(const platform::key_service::SoftwareKey& key, Name subject = {},
                         bool keyManagement = false) {
    return X509Certificate::create(key.publicKeyAttributes(), key.applicationLabel(),
                                   std::move(subject), keyManagement,
                                   fixedUuids({uuid(0x12, 0x34)}));
}

TEST(Name, CertificateNameBytes) {
    EXPECT_EQ(der::encode(certificateName({.commonName = "Alice"})),
              (Bytes{0x30, 0x10, 0x31, 0x0E, 0x30, 0x0C, 0x06, 0x03, 0x55, 0x04, 0x03, 0x16, 0x05,
                     'A', 'l', 'i', 'c', 'e'}));
    // An empty part keeps its RDN; an absent one has none.
    EXPECT_EQ(der::encode(certificateName({.commonName = "", .email = "x"})),
              (Bytes{0x30, 0x1D, 0x31, 0x09, 0x30, 0x07, 0x06, 0x03, 0x55, 0x04, 0x03,
                     0x16, 0x00, 0x31, 0x10, 0x30, 0x0E, 0x06, 0x09, 0x2A, 0x86, 0x48,
                     0x86, 0xF7, 0x0D, 0x01, 0x09, 0x01, 0x16, 0x01, 'x'}));
    EXPECT_EQ(der::encode(certificateName({})), (Bytes{0x30, 0x00}));
    // Each character outside ASCII becomes one '?'.
    const Bytes lossy = der::encode(certificateName({.commonName = "a\xC3\xA9;|"}));
    EXPECT_EQ(Bytes(lossy.end() - 4, lossy.end()), (Bytes{'a', '?', ';', '|'}));
}

TEST(Validity, DaysTexts) {
    for (const auto& [text, days] : std::vector<std::pair<std::string, std::int64_t>>{
             {"30", 30}, {"+30", 30}, {"030", 30}, {"-1", -1}, {"0", 0}}) {
        EXPECT_EQ(validityDays(text), std::chrono::seconds(days * 86400)) << text;
    }
    for (const std::string text :
         {"30 ", "3O", "-", "", "+-1", "99999999999999999999", "106751991167301"}) {
        try {
            validityDays(text);
            ADD_FAILURE() << text;
        } catch (const KeyloftError& error) {
            EXPECT_EQ(error.text(),
                      "Certificate validity must be number of days, got '" + text + "'");
        }
    }
}

std::string timeText(std::chrono::sys_seconds instant, std::chrono::milliseconds extra = 0ms) {
    const auto record = utcTimeRecord(instant + extra);
    return std::string(record.bytes().begin(), record.bytes().end()) +
           (record.tag() == 0x17 ? "" : " generalized");
}

TEST(Validity, TimesAreUtcWithoutFractions) {
    using std::chrono::sys_days;
    using namespace std::chrono;
    EXPECT_EQ(timeText(sys_days{2026y / 11 / 16} + 19h + 31min + 7s, 200ms), "261116193107Z");
    EXPECT_EQ(timeText(sys_days{2027y / 12 / 31} + 12h + 365 * 24h), "281230120000Z");
    EXPECT_EQ(timeText(sys_days{2027y / 1 / 1} + 1min), "270101000100Z");
    EXPECT_EQ(timeText(sys_days{2026y / 1 / 1} - 1h + 59s, 900ms), "251231230059Z");
    EXPECT_EQ(timeText(sys_days{2050y / 1 / 1}), "20500101000000Z generalized");
    EXPECT_EQ(timeText(sys_days{2049y / 12 / 31} + 23h + 59min + 59s), "491231235959Z");
}

TEST(Model, SerialNeverStartsWithARedundantZero) {
    const auto key = platform::key_service::SoftwareKey::generateEC(256);
    const auto model =
        X509Certificate::create(key.publicKeyAttributes(), key.applicationLabel(), {}, false,
                                fixedUuids({uuid(0x00, 0x12), uuid(0x00, 0x7F), uuid(0x00, 0x80)}));
    EXPECT_EQ(model.serial, uuid(0x00, 0x80));
    EXPECT_EQ(model.validTo - model.validFrom >= defaultValidity, true);
}

TEST(Model, SubjectPublicKeyInfoPerCurve) {
    struct Case {
        int size;
        Bytes prefix;
    };
    for (const auto& [size, prefix] : std::vector<Case>{
             {256,
              {0x30, 0x59, 0x30, 0x13, 0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01, 0x06,
               0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07, 0x03, 0x42, 0x00, 0x04}},
             {384, {0x30, 0x76, 0x30, 0x10, 0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02,
                    0x01, 0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22, 0x03, 0x62, 0x00, 0x04}},
             {521,
              {0x30, 0x81, 0x9B, 0x30, 0x10, 0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02,
               0x01, 0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23, 0x03, 0x81, 0x86, 0x00, 0x04}}}) {
        // A point whose first coordinate byte is 0x3F would read as an OCTET STRING record.
        auto attributes =
            platform::key_service::SoftwareKey::generateEC(size).publicKeyAttributes();
        attributes.externalRepresentation[1] = 0x3F;
        const Bytes info = der::encode(subjectPublicKeyInfo(attributes));
        EXPECT_EQ(Bytes(info.begin(), info.begin() + static_cast<std::ptrdiff_t>(prefix.size())),
                  prefix)
            << size;
        EXPECT_EQ(info.size(), prefix.size() + attributes.externalRepresentation.size() - 1);
    }
}

TEST(Model, FreshSerialForEveryCertificate) {
    const auto key = platform::key_service::SoftwareKey::generateEC(256);
    const auto first = X509Certificate::create(key.publicKeyAttributes(), key.applicationLabel(),
                                               {}, false, platform::crypto::randomUuid);
    const auto second = X509Certificate::create(key.publicKeyAttributes(), key.applicationLabel(),
                                                {}, false, platform::crypto::randomUuid);
    EXPECT_NE(first.serial, second.serial);
    EXPECT_EQ(first.pubKeyBERTLV, second.pubKeyBERTLV);
}

TEST(Model, RefusesUnsupportedKeys) {
    PublicKeyAttributes odd{"ec", 224, Bytes(57, 4)};
    try {
        X509Certificate::create(odd, {}, {}, false, fixedUuids({uuid(1, 1)}));
        FAIL();
    } catch (const KeyloftError& error) {
        EXPECT_EQ(error.text(), "unsupported public key EC key size: 224");
    }
    odd.keyType = "dsa";
    EXPECT_THROW(X509Certificate::create(odd, {}, {}, false, fixedUuids({uuid(1, 1)})),
                 KeyloftError);
}

class Built : public ::testing::TestWithParam<int> {};

TEST_P(Built, OpenSslAcceptsTheCertificateAndItsSignature) {
    const auto key = platform::key_service::SoftwareKey::generateEC(GetParam());
    const auto model = modelFor(key,
                                {.commonName = "Alice",
                                 .email = "alice@example.com",
                                 .organization = "Example",
                                 .country = "DE"},
                                true);
    const Bytes der =
        der::encode(buildCertificate(model, der::oid::ecdsaWithSHA384, [&](ByteView tbs) {
            return key.sign(
                platform::key_service::SignatureAlgorithm::ecdsaSignatureMessageX962SHA384, tbs);
        }));
    const unsigned char* cursor = der.data();
    std::unique_ptr<X509, decltype(&X509_free)> x509(
        d2i_X509(nullptr, &cursor, static_cast<long>(der.size())), X509_free);
    ASSERT_TRUE(x509);
    EXPECT_EQ(X509_get_version(x509.get()), 2);
    EXPECT_EQ(X509_verify(x509.get(), X509_get0_pubkey(x509.get())), 1);
    EXPECT_EQ(X509_NAME_cmp(X509_get_issuer_name(x509.get()), X509_get_subject_name(x509.get())),
              0);
    EXPECT_EQ(X509_get_key_usage(x509.get()),
              static_cast<uint32_t>(KU_KEY_ENCIPHERMENT | KU_KEY_AGREEMENT));
}

INSTANTIATE_TEST_SUITE_P(Curves, Built, ::testing::Values(256, 384, 521));

using X509Handle = std::unique_ptr<X509, decltype(&X509_free)>;

struct BuiltCertificate {
    Bytes der;
    X509Handle x509;
};

BuiltCertificate build(const platform::key_service::SoftwareKey& key,
                       const X509Certificate& model) {
    Bytes der = der::encode(buildCertificate(model, der::oid::ecdsaWithSHA384, [&](ByteView tbs) {
        return key.sign(platform::key_service::SignatureAlgorithm::ecdsaSignatureMessageX962SHA384,
                        tbs);
    }));
    const unsigned char* cursor = der.data();
    X509Handle x509(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())), X509_free);
    return {std::move(der), std::move(x509)};
}

Bytes i2dName(const X509_NAME* name) {
    unsigned char* out = nullptr;
    const int size = i2d_X509_NAME(name, &out);
    Bytes bytes(out, out + size);
    OPENSSL_free(out);
    return bytes;
}

// What each extension holds is checked end to end; here their order and critical flags.
TEST(Profile, ExtensionsInOrderWithTheirCriticalFlags) {
    const auto key = platform::key_service::SoftwareKey::generateEC(256);
    const auto model = modelFor(key, {.commonName = "Alice", .email = "a@b.c"});
    const auto certificate = build(key, model);
    ASSERT_TRUE(certificate.x509);
    const std::vector<std::pair<int, bool>> expected{{NID_basic_constraints, true},
                                                     {NID_subject_key_identifier, false},
                                                     {NID_key_usage, true},
                                                     {NID_ext_key_usage, false},
                                                     {NID_authority_key_identifier, false},
                                                     {NID_subject_alt_name, false}};
    ASSERT_EQ(X509_get_ext_count(certificate.x509.get()), static_cast<int>(expected.size()));
    for (int i = 0; i < X509_get_ext_count(certificate.x509.get()); ++i) {
        X509_EXTENSION* extension = X509_get_ext(certificate.x509.get(), i);
        EXPECT_EQ(OBJ_obj2nid(X509_EXTENSION_get_object(extension)), expected[i].first) << i;
        EXPECT_EQ(X509_EXTENSION_get_critical(extension) == 1, expected[i].second) << i;
    }
    const ASN1_OCTET_STRING* authority = X509_get0_authority_key_id(certificate.x509.get());
    ASSERT_NE(authority, nullptr);
    EXPECT_EQ(Bytes(ASN1_STRING_get0_data(authority),
                    ASN1_STRING_get0_data(authority) + ASN1_STRING_length(authority)),
              model.pubKeyHash);
}

TEST(Profile, SubjectAltNameOnlyWithANonEmptyEmail) {
    const auto key = platform::key_service::SoftwareKey::generateEC(256);
    for (const auto& [email, present] : std::vector<std::pair<std::optional<std::string>, bool>>{
             {std::nullopt, false}, {"", false}, {"x", true}}) {
        const auto certificate = build(key, modelFor(key, {.commonName = "Bob", .email = email}));
        ASSERT_TRUE(certificate.x509);
        EXPECT_EQ(X509_get_ext_by_NID(certificate.x509.get(), NID_subject_alt_name, -1) >= 0,
                  present)
            << email.value_or("(none)");
        EXPECT_EQ(X509_get_ext_count(certificate.x509.get()), present ? 6 : 5);
    }
}

TEST(Profile, SerialIsTheUuid) {
    const auto key = platform::key_service::SoftwareKey::generateEC(256);
    for (const auto& [first, integer] : std::vector<std::pair<std::uint8_t, Bytes>>{
             {0x12, {0x02, 0x10, 0x12, 0x34}}, {0x80, {0x02, 0x11, 0x00, 0x80, 0x34}}}) {
        const auto model =
            X509Certificate::create(key.publicKeyAttributes(), key.applicationLabel(), {}, false,
                                    fixedUuids({uuid(first, 0x34)}));
        const auto certificate = build(key, model);
        ASSERT_TRUE(certificate.x509);
        unsigned char* out = nullptr;
        const int size = i2d_ASN1_INTEGER(X509_get_serialNumber(certificate.x509.get()), &out);
        const Bytes serial(out, out + size);
        OPENSSL_free(out);
        EXPECT_EQ(
            Bytes(serial.begin(), serial.begin() + static_cast<std::ptrdiff_t>(integer.size())),
            integer);
        EXPECT_EQ(serial.size(), integer.size() + 14);
    }
}

TEST(Profile, NameOrderAndStringTypes) {
    const auto key = platform::key_service::SoftwareKey::generateEC(256);
    const auto model = modelFor(key, {.commonName = "A",
                                      .email = "B",
                                      .organization = "D",
                                      .organizationalUnit = "C",
                                      .locality = "E",
                                      .stateOrProvince = "F",
                                      .country = "G"});
    const auto certificate = build(key, model);
    ASSERT_TRUE(certificate.x509);
    const X509_NAME* subject = X509_get_subject_name(certificate.x509.get());
    EXPECT_EQ(i2dName(subject), der::encode(certificateName(model.subject)));
    EXPECT_EQ(i2dName(X509_get_issuer_name(certificate.x509.get())), i2dName(subject));
    const std::vector<std::pair<int, char>> expected{
        {NID_countryName, 'G'},       {NID_stateOrProvinceName, 'F'},    {NID_localityName, 'E'},
        {NID_organizationName, 'D'},  {NID_organizationalUnitName, 'C'}, {NID_commonName, 'A'},
        {NID_pkcs9_emailAddress, 'B'}};
    ASSERT_EQ(X509_NAME_entry_count(subject), 7);
    for (int i = 0; i < 7; ++i) {
        const X509_NAME_ENTRY* entry = X509_NAME_get_entry(subject, i);
        const ASN1_STRING* value = X509_NAME_ENTRY_get_data(entry);
        EXPECT_EQ(OBJ_obj2nid(X509_NAME_ENTRY_get_object(entry)), expected[i].first) << i;
        EXPECT_EQ(ASN1_STRING_type(value), V_ASN1_IA5STRING) << i;
        ASSERT_EQ(ASN1_STRING_length(value), 1);
        EXPECT_EQ(ASN1_STRING_get0_data(value)[0], expected[i].second) << i;
    }
}

TEST(Build, UnknownSignatureOidFailsFirst) {
    const auto key = platform::key_service::SoftwareKey::generateEC(256);
    bool signed_ = false;
    EXPECT_THROW(buildCertificate(modelFor(key), der::oid::idSha1,
                                  [&](ByteView) {
                                      signed_ = true;
                                      return Bytes{};
                                  }),
                 KeyloftError);
    EXPECT_FALSE(signed_);
    EXPECT_EQ(der::encode(*signatureAlgorithmIdentifier(der::oid::sha256WithRSAEncryption)),
              (Bytes{0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x0B,
                     0x05, 0x00}));
}

}  // namespace
}  // namespace keyloft::x509
