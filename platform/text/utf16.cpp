#include "platform/text/utf16.hpp"

#include <unicode/normalizer2.h>
#include <unicode/unistr.h>

#include "keyloft/error.hpp"

namespace keyloft::platform {
namespace {

// The UnicodeString's buffer may hold a password; overwrite it before it is released.
struct WipedText {
    explicit WipedText(std::string_view utf8)
        : text(icu::UnicodeString::fromUTF8(
              icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())))) {}
    WipedText(const WipedText&) = delete;
    WipedText& operator=(const WipedText&) = delete;
    ~WipedText() {
        if (text.length() > 0)
            wipe(text.getBuffer(text.length()), static_cast<std::size_t>(text.length()) * 2);
    }
    icu::UnicodeString text;
};

}  // namespace

SecretBytes utf16BigEndian(std::string_view utf8) {
    const WipedText text(utf8);
    SecretBytes out;
    out.reserve(static_cast<std::size_t>(text.text.length()) * 2);
    for (int32_t i = 0; i < text.text.length(); ++i) {
        const char16_t unit = text.text.charAt(i);
        out.push_back(static_cast<std::uint8_t>(unit >> 8U));
        out.push_back(static_cast<std::uint8_t>(unit & 0xFFU));
    }
    return out;
}

bool canonicallyEqual(std::string_view a, std::string_view b) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
    if (U_FAILURE(status)) throw PlatformError("Unicode normalization is not available");
    const WipedText first(a);
    const WipedText second(b);
    WipedText normalFirst("");
    WipedText normalSecond("");
    normalFirst.text = nfd->normalize(first.text, status);
    normalSecond.text = nfd->normalize(second.text, status);
    if (U_FAILURE(status)) throw PlatformError("Unicode normalization failed");
    return normalFirst.text == normalSecond.text;
}

}  // namespace keyloft::platform
