#include "platform/text/date_format.hpp"

#include <unicode/datefmt.h>
#include <unicode/locid.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <cstdlib>
#include <string_view>

#include "base/error.hpp"

namespace keyloft::platform::text {
namespace {

// POSIX locale name ("de_DE.UTF-8@euro") to an ICU locale; "C" and "POSIX" mean en_US_POSIX.
icu::Locale userTimeLocale() {
    for (const char* variable : {"LC_ALL", "LC_TIME", "LANG"}) {
        const char* value = std::getenv(variable);
        if (value == nullptr || *value == '\0') continue;
        std::string_view name(value);
        name = name.substr(0, name.find_first_of(".@"));
        if (name == "C" || name == "POSIX") return icu::Locale("en_US_POSIX");
        return icu::Locale(std::string(name).c_str());
    }
    return icu::Locale("en_US_POSIX");
}

}  // namespace

struct ShortDateTimeFormatter::Impl {
    std::unique_ptr<icu::DateFormat> format;
};

ShortDateTimeFormatter::ShortDateTimeFormatter() : impl_(std::make_unique<Impl>()) {
    impl_->format.reset(icu::DateFormat::createDateTimeInstance(
        icu::DateFormat::kShort, icu::DateFormat::kShort, userTimeLocale()));
    if (!impl_->format) throw PlatformError("Cannot create a date formatter for the user's locale");
    impl_->format->adoptTimeZone(icu::TimeZone::createDefault());
}

ShortDateTimeFormatter::~ShortDateTimeFormatter() = default;

std::string ShortDateTimeFormatter::format(std::chrono::sys_seconds instant) const {
    const auto millis =
        std::chrono::duration<double, std::milli>(instant.time_since_epoch()).count();
    icu::UnicodeString text;
    impl_->format->format(static_cast<UDate>(millis), text);
    std::string out;
    text.toUTF8String(out);
    return out;
}

}  // namespace keyloft::platform::text
