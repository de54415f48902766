#include "pubkey/ssh_wire.hpp"

#include <gtest/gtest.h>

namespace keyloft::pubkey {
namespace {

TEST(SshWire, PrefixesAnMPIntWithZeroOnlyWhenTheHighBitIsSet) {
    const std::pair<Bytes, Bytes> cases[] = {
        {{0x01, 0x00, 0x01}, {0, 0, 0, 3, 0x01, 0x00, 0x01}},
        {{0x7F}, {0, 0, 0, 1, 0x7F}},
        {{0x80}, {0, 0, 0, 2, 0x00, 0x80}},
        {{}, {0, 0, 0, 0}},
    };
    for (const auto& [magnitude, written] : cases) {
        Bytes buffer;
        appendMPInt(buffer, magnitude);
        EXPECT_EQ(buffer, written);
    }
}

}  // namespace
}  // namespace keyloft::pubkey
