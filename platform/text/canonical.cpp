#include "platform/text/canonical.hpp"

#include <unicode/unorm2.h>

#include "base/error.hpp"
#include "platform/text/utf16.hpp"

namespace keyloft::platform::text {
namespace {

// No character decomposes canonically into more than four UTF-16 code units per unit, so this
// capacity lets ICU write the decomposition straight into wiped storage without a buffer of its
// own; a longer result is asked for again at its exact length.
constexpr std::size_t expansion = 4;

SecretUtf16 decomposed(const UNormalizer2* nfd, std::string_view utf8) {
    const SecretUtf16 units = utf16Units(utf8);
    SecretUtf16 out(units.size() * expansion + 1);
    for (;;) {
        UErrorCode status = U_ZERO_ERROR;
        const int32_t length =
            unorm2_normalize(nfd, units.data(), static_cast<int32_t>(units.size()), out.data(),
                             static_cast<int32_t>(out.size()), &status);
        if (status == U_BUFFER_OVERFLOW_ERROR) {
            out.assign(static_cast<std::size_t>(length) + 1, 0);
            continue;
        }
        if (U_FAILURE(status)) throw PlatformError("Unicode normalization failed");
        out.resize(static_cast<std::size_t>(length));
        return out;
    }
}

}  // namespace

bool canonicallyEqual(std::string_view a, std::string_view b) {
    UErrorCode status = U_ZERO_ERROR;
    const UNormalizer2* nfd = unorm2_getNFDInstance(&status);
    if (U_FAILURE(status)) throw PlatformError("Unicode normalization is not available");
    return decomposed(nfd, a) == decomposed(nfd, b);
}

}  // namespace keyloft::platform::text
