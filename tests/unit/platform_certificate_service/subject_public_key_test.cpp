#include "platform/certificate_service/subject_public_key.hpp"

#include <gtest/gtest.h>

#include "platform/certificate_service/certificate.hpp"
#include "support/test_certificates.hpp"

namespace keyloft::platform::certificate_service {
namespace {

TEST(SubjectPublicKey, AgreesWithTheCertificateService) {
    std::vector<testing::Pkey> keys;
    for (const char* curve : {"P-256", "P-384", "P-521"}) keys.push_back(testing::makeEcKey(curve));
    keys.push_back(testing::makeRsaKey(2048));
    keys.push_back(testing::makeRsaKey(1031));
    for (const auto& key : keys) {
        const Bytes der = testing::makeCertificate(key.get(), "Key", 10, "k@example.com");
        const auto fromStructure = subjectPublicKeyOf(der);
        const auto fromService = Certificate::parse(der)->publicKey();
        ASSERT_TRUE(fromStructure && fromService);
        EXPECT_EQ(fromStructure->keyType, fromService->keyType);
        EXPECT_EQ(fromStructure->sizeInBits, fromService->sizeInBits);
        EXPECT_EQ(fromStructure->externalRepresentation, fromService->externalRepresentation);
    }
}

TEST(SubjectPublicKey, RefusesOtherShapes) {
    const auto key = testing::makeEcKey("P-256");
    const Bytes der = testing::makeCertificate(key.get());
    for (std::size_t cut : {std::size_t{0}, std::size_t{1}, der.size() / 2, der.size() - 1}) {
        EXPECT_FALSE(subjectPublicKeyOf(ByteView(der).first(cut))) << cut;
    }
    EXPECT_FALSE(subjectPublicKeyOf(Bytes{0x30, 0x00}));
    EXPECT_FALSE(subjectPublicKeyOf(Bytes{0x30, 0x84, 0xFF, 0xFF, 0xFF, 0xFF}));
}

}  // namespace
}  // namespace keyloft::platform::certificate_service
