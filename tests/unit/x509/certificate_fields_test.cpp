#include "x509/certificate_fields.hpp"

#include <gtest/gtest.h>
#include <openssl/x509.h>

#include "support/test_certificates.hpp"

namespace keyloft::x509 {
namespace {

template <class T, class Encoder>
Bytes derOf(T* value, Encoder encode) {
    unsigned char* out = nullptr;
    const int size = encode(value, &out);
    Bytes bytes(out, out + size);
    OPENSSL_free(out);
    return bytes;
}

class Fields : public ::testing::TestWithParam<bool> {};

TEST_P(Fields, EqualWhatOpenSslEncodes) {
    const auto key = GetParam() ? testing::makeRsaKey() : testing::makeEcKey("P-384");
    const Bytes certificate = testing::makeCertificate(key.get(), "Fields", 30, "f@example.com");
    const unsigned char* cursor = certificate.data();
    std::unique_ptr<X509, decltype(&X509_free)> x509(
        d2i_X509(nullptr, &cursor, static_cast<long>(certificate.size())), X509_free);

    const auto fields = certificateFields(certificate);
    ASSERT_TRUE(fields);
    EXPECT_EQ(fields->subject, derOf(X509_get_subject_name(x509.get()), i2d_X509_NAME));
    EXPECT_EQ(fields->issuer, derOf(X509_get_issuer_name(x509.get()), i2d_X509_NAME));
    EXPECT_EQ(fields->serialNumber, derOf(X509_get_serialNumber(x509.get()), i2d_ASN1_INTEGER));
    EXPECT_EQ(fields->subjectPublicKeyInfo,
              derOf(X509_get_X509_PUBKEY(x509.get()), i2d_X509_PUBKEY));
}

INSTANTIATE_TEST_SUITE_P(KeyKinds, Fields, ::testing::Bool());

TEST(Fields, NeedACertificate) {
    const auto key = testing::makeEcKey();
    Bytes certificate = testing::makeCertificate(key.get());
    EXPECT_FALSE(certificateFields(Bytes{}));
    EXPECT_FALSE(certificateFields(Bytes{0x30, 0x00}));
    certificate.pop_back();
    EXPECT_FALSE(certificateFields(certificate));
}

}  // namespace
}  // namespace keyloft::x509
