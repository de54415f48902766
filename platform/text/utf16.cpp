#include "platform/text/utf16.hpp"

#include <unicode/ustring.h>

#include <limits>

#include "base/error.hpp"

namespace keyloft::platform::text {

SecretUtf16 utf16Units(std::string_view utf8) {
    if (utf8.size() > static_cast<std::size_t>(std::numeric_limits<int32_t>::max()))
        throw PlatformError("text too long for UTF-16 conversion");
    const auto sourceLength = static_cast<int32_t>(utf8.size());
    constexpr UChar32 replacement = 0xFFFD;
    // Measuring first lets ICU write straight into wiped storage, with no buffer of its own.
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF8WithSub(nullptr, 0, &length, utf8.data(), sourceLength, replacement, nullptr,
                         &status);
    if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status))
        throw PlatformError("text cannot be converted to UTF-16");
    SecretUtf16 units(static_cast<std::size_t>(length));
    status = U_ZERO_ERROR;
    u_strFromUTF8WithSub(units.data(), length, &length, utf8.data(), sourceLength, replacement,
                         nullptr, &status);
    if (U_FAILURE(status)) throw PlatformError("text cannot be converted to UTF-16");
    return units;
}

crypto::SecretBytes utf16BigEndian(std::string_view utf8) {
    const SecretUtf16 units = utf16Units(utf8);
    crypto::SecretBytes out;
    out.reserve(units.size() * 2);
    for (const char16_t unit : units) {
        out.push_back(static_cast<std::uint8_t>(unit >> 8U));
        out.push_back(static_cast<std::uint8_t>(unit & 0xFFU));
    }
    return out;
}

}  // namespace keyloft::platform::text
