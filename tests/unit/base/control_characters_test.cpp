#include "base/control_characters.hpp"

#include <gtest/gtest.h>

namespace keyloft {
namespace {

struct Case {
    std::string text;
    std::string escaped;
    std::string stripped;
};

class ControlCharacters : public ::testing::TestWithParam<Case> {};

TEST_P(ControlCharacters, AreEscapedForTerminalsAndDroppedFromLabels) {
    EXPECT_EQ(escapeControlCharacters(GetParam().text), GetParam().escaped);
    EXPECT_EQ(withoutControlCharacters(GetParam().text), GetParam().stripped);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ControlCharacters,
    ::testing::Values(
        Case{"Mail", "Mail", "Mail"},
        // Text beyond ASCII passes whole: é, a CJK character, an emoji, U+00A0 just after C1.
        Case{"caf\xC3\xA9 \xE4\xB8\xAD \xF0\x9F\x94\x91 \xC2\xA0",
             "caf\xC3\xA9 \xE4\xB8\xAD "
             "\xF0\x9F\x94\x91 \xC2\xA0",
             "caf\xC3\xA9 \xE4\xB8\xAD \xF0\x9F\x94\x91 \xC2\xA0"},
        Case{"a\x1B[31mred\x07", "a\\x1B[31mred\\x07", "a[31mred"},
        Case{std::string("nul\0tab\tline\nret\r", 17), "nul\\x00tab\\x09line\\x0Aret\\x0D",
             "nultablineret"},
        Case{"del\x7F", "del\\x7F", "del"},
        // C1: NEL and CSI as UTF-8, and CSI as a bare byte, which 8-bit terminals obey.
        Case{"next\xC2\x85line \xC2\x9B"
             "2J",
             "next\\x85line \\x9B2J", "nextline 2J"},
        Case{"raw\x9B"
             "2J",
             "raw\\x9B2J", "raw2J"},
        // Bytes outside valid UTF-8: a truncated sequence, an overlong form, a surrogate.
        Case{"cut\xE4\xB8", "cut\\xE4\\xB8", "cut"}, Case{"long\xC0\x80", "long\\xC0\\x80", "long"},
        Case{"half\xED\xA0\x80", "half\\xED\\xA0\\x80", "half"}));

}  // namespace
}  // namespace keyloft
