#include "der/digest_info.hpp"

#include <gtest/gtest.h>

#include "der/object_identifiers.hpp"
#include "support/hex.hpp"

namespace keyloft::der {
namespace {

struct DigestInfoCase {
    ByteView oid;
    std::size_t size;
    std::string prefix;  // what RFC 8017 lists before the digest
};

class DigestInfos : public ::testing::TestWithParam<DigestInfoCase> {};

TEST_P(DigestInfos, StartWithTheKnownPrefix) {
    const Bytes digest(GetParam().size, 0xAB);
    const Bytes encoded = encodeDigestInfo(GetParam().oid, digest);
    EXPECT_EQ(testing::hex(ByteView(encoded).first(encoded.size() - digest.size())),
              GetParam().prefix);
}

INSTANTIATE_TEST_SUITE_P(
    Hashes, DigestInfos,
    ::testing::Values(DigestInfoCase{oid::idSha1, 20, "3021300906052b0e03021a05000414"},
                      DigestInfoCase{oid::idSha224, 28, "302d300d06096086480165030402040500041c"},
                      DigestInfoCase{oid::idSha256, 32, "3031300d060960864801650304020105000420"},
                      DigestInfoCase{oid::idSha384, 48, "3041300d060960864801650304020205000430"},
                      DigestInfoCase{oid::idSha512, 64, "3051300d060960864801650304020305000440"}));

}  // namespace
}  // namespace keyloft::der
