#include "platform/crypto/digest.hpp"

#include <gtest/gtest.h>

#include "support/hex.hpp"

namespace keyloft::platform::crypto {
namespace {

struct DigestCase {
    DigestAlgorithm algorithm;
    std::size_t size;
    std::string ofAbc;  // the published test vector for "abc"
};

class Digests : public ::testing::TestWithParam<DigestCase> {};

TEST_P(Digests, MatchTheKnownVectorAndSize) {
    const Bytes computed = digest(GetParam().algorithm, bytesOf("abc"));
    EXPECT_EQ(testing::hex(computed), GetParam().ofAbc);
    EXPECT_EQ(digestSize(GetParam().algorithm), GetParam().size);
    EXPECT_EQ(computed.size(), GetParam().size);
}

INSTANTIATE_TEST_SUITE_P(
    Algorithms, Digests,
    ::testing::Values(
        DigestCase{DigestAlgorithm::sha1, 20, "a9993e364706816aba3e25717850c26c9cd0d89d"},
        DigestCase{DigestAlgorithm::sha224, 28,
                   "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7"},
        DigestCase{DigestAlgorithm::sha256, 32,
                   "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        DigestCase{DigestAlgorithm::sha384, 48,
                   "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2"
                   "358baeca134c825a7"},
        DigestCase{DigestAlgorithm::sha512, 64,
                   "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a"
                   "836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"}));

}  // namespace
}  // namespace keyloft::platform::crypto
