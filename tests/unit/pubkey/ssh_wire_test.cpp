#include "pubkey/ssh_wire.hpp"

#include <gtest/gtest.h>

namespace keyloft::pubkey {
namespace {

TEST(SshWire, WritesLengthsBigEndianBeforeTheContent) {
    Bytes buffer{0xEE};
    appendUInt32(buffer, 0x01020304);
    appendString(buffer, "ssh:");
    appendData(buffer, Bytes{0x04, 0xFF});
    appendData(buffer, Bytes{});
    EXPECT_EQ(buffer, (Bytes{0xEE, 0x01, 0x02, 0x03, 0x04, 0,    0,    0, 4, 's', 's', 'h',
                             ':',  0,    0,    0,    2,    0x04, 0xFF, 0, 0, 0,   0}));
}

struct MPIntCase {
    Bytes magnitude;
    Bytes written;
};

class SshMPInt : public ::testing::TestWithParam<MPIntCase> {};

TEST_P(SshMPInt, PrefixesAZeroByteOnlyWhenTheHighBitIsSet) {
    Bytes buffer;
    appendMPInt(buffer, GetParam().magnitude);
    EXPECT_EQ(buffer, GetParam().written);
}

INSTANTIATE_TEST_SUITE_P(Cases, SshMPInt,
                         ::testing::Values(MPIntCase{{0x01, 0x00, 0x01},
                                                     {0, 0, 0, 3, 0x01, 0x00, 0x01}},
                                           MPIntCase{{0x7F}, {0, 0, 0, 1, 0x7F}},
                                           MPIntCase{{0x80}, {0, 0, 0, 2, 0x00, 0x80}},
                                           MPIntCase{{0xC3, 0x01}, {0, 0, 0, 3, 0x00, 0xC3, 0x01}},
                                           MPIntCase{{}, {0, 0, 0, 0}}));

}  // namespace
}  // namespace keyloft::pubkey
