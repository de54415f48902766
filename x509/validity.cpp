#include "x509/validity.hpp"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <string>

#include "base/error.hpp"

namespace keyloft::x509 {
namespace {

constexpr std::int64_t secondsPerDay = 86'400;

std::optional<std::int64_t> parseDays(std::string_view text) {
    std::string_view digits = text;
    bool negative = false;
    if (!digits.empty() && (digits.front() == '+' || digits.front() == '-')) {
        negative = digits.front() == '-';
        digits.remove_prefix(1);
    }
    if (digits.empty() ||
        !std::ranges::all_of(digits, [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    // Parse the magnitude with the sign attached so that the most negative value fits.
    const std::string signedDigits = (negative ? "-" : "") + std::string(digits);
    std::int64_t value = 0;
    const auto [end, error] =
        std::from_chars(signedDigits.data(), signedDigits.data() + signedDigits.size(), value);
    if (error != std::errc() || end != signedDigits.data() + signedDigits.size())
        return std::nullopt;
    return value;
}

void appendTwoDigits(std::string& out, unsigned value) {
    out += static_cast<char>('0' + value / 10 % 10);
    out += static_cast<char>('0' + value % 10);
}

}  // namespace

Validity startValidity() {
    const auto from = std::chrono::system_clock::now();
    return {from, std::chrono::system_clock::now() + defaultValidity};
}

std::chrono::seconds validityDays(std::string_view daysText) {
    const auto days = parseDays(daysText);
    constexpr auto limit = std::numeric_limits<std::int64_t>::max() / secondsPerDay;
    if (!days || *days > limit || *days < -limit) {
        throw KeyloftError::generic("Certificate validity must be number of days, got '" +
                                    std::string(daysText) + "'");
    }
    return std::chrono::seconds(*days * secondsPerDay);
}

der::Record utcTimeRecord(Instant instant) {
    using namespace std::chrono;
    const auto seconds = floor<std::chrono::seconds>(instant);
    const auto day = floor<days>(seconds);
    const year_month_day date(day);
    const hh_mm_ss time(seconds - day);
    const int year = static_cast<int>(date.year());
    const bool generalized = year < 1950 || year >= 2050;
    std::string text;
    if (generalized) {
        appendTwoDigits(text, static_cast<unsigned>(year / 100));
    }
    appendTwoDigits(text, static_cast<unsigned>(year % 100));
    appendTwoDigits(text, static_cast<unsigned>(date.month()));
    appendTwoDigits(text, static_cast<unsigned>(date.day()));
    appendTwoDigits(text, static_cast<unsigned>(time.hours().count()));
    appendTwoDigits(text, static_cast<unsigned>(time.minutes().count()));
    appendTwoDigits(text, static_cast<unsigned>(time.seconds().count()));
    text += 'Z';
    return der::primitiveRecord(generalized ? der::tag::generalizedTime : der::tag::utcTime,
                                bytesOf(text));
}

}  // namespace keyloft::x509
