#include "platform/plist/utf8_text.hpp"

#include <gtest/gtest.h>

#include <string>

namespace keyloft::platform {
namespace {

TEST(Utf8Text, AcceptsWellFormedTextOnly) {
    for (const char* text : {"", "ec", "Zoë", "✓", "😀", "\x7F", "\xF4\x8F\xBF\xBF"}) {
        EXPECT_TRUE(isUtf8(text)) << text;
    }
    const char* malformed[] = {
        "\x80",              // continuation without a lead
        "\xA0\x63",          // the same, before ASCII
        "\xC0\x80",          // overlong NUL
        "\xE0\x80\xAF",      // overlong '/'
        "\xED\xA0\x80",      // surrogate
        "\xF4\x90\x80\x80",  // above U+10FFFF
        "\xE2\x9C",          // cut short
        "\xC3\x28",          // bad continuation
        "\xFF",
    };
    for (const char* text : malformed) EXPECT_FALSE(isUtf8(text)) << text;
}

}  // namespace
}  // namespace keyloft::platform
