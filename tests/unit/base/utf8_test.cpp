#include "base/utf8.hpp"

#include <gtest/gtest.h>

namespace keyloft {
namespace {

TEST(Utf8, AcceptsWellFormedTextOnly) {
    for (const char* text : {"", "ec", "Zoë", "✓", "😀", "\xF4\x8F\xBF\xBF"})
        EXPECT_TRUE(isUtf8(text)) << text;
    // Lone continuation, overlong NUL and '/', surrogate, above U+10FFFF, cut short, bad
    // continuation.
    for (const char* text : {"\xA0\x63", "\xC0\x80", "\xE0\x80\xAF", "\xED\xA0\x80",
                             "\xF4\x90\x80\x80", "\xE2\x9C", "\xC3\x28", "\xFF"}) {
        EXPECT_FALSE(isUtf8(text)) << text;
    }
}

}  // namespace
}  // namespace keyloft
