#include "base/settings.hpp"

#include <algorithm>
#include <charconv>

namespace keyloft {
namespace {

constexpr std::string_view blanks = " \t\r";
constexpr long maximumGraceSeconds = 3600;

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(blanks);
    if (first == text.npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool yesNo(std::string_view value, std::size_t line) {
    if (value == "yes") return true;
    if (value == "no") return false;
    throw SettingsError{line, "require_tpm is 'yes' or 'no'"};
}

std::chrono::seconds seconds(std::string_view value, std::size_t line) {
    long number = -1;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (error != std::errc() || end != value.data() + value.size() || number < 0 ||
        number > maximumGraceSeconds) {
        throw SettingsError{line, "presence_grace_seconds is a whole number from 0 to 3600"};
    }
    return std::chrono::seconds(number);
}

}  // namespace

Settings applySettings(Settings current, std::string_view text, bool tightenOnly) {
    std::size_t lineNumber = 0;
    while (!text.empty()) {
        ++lineNumber;
        const auto end = std::min(text.find('\n'), text.size());
        const std::string_view line = trimmed(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        if (line.empty() || line.front() == '#') continue;
        const auto equals = line.find('=');
        if (equals == line.npos) throw SettingsError{lineNumber, "expected 'key = value'"};
        const std::string_view key = trimmed(line.substr(0, equals));
        const std::string_view value = trimmed(line.substr(equals + 1));
        if (key == "require_tpm") {
            const bool required = yesNo(value, lineNumber);
            if (required || !tightenOnly) current.requireTpm = required;
        } else if (key == "presence_grace_seconds") {
            const auto grace = seconds(value, lineNumber);
            if (grace < current.presenceGrace || !tightenOnly) current.presenceGrace = grace;
        } else {
            throw SettingsError{lineNumber, "unknown setting '" + std::string(key) + "'"};
        }
    }
    return current;
}

}  // namespace keyloft
