#pragma once

#include <chrono>
#include <string_view>

#include "der/record.hpp"

namespace keyloft::x509 {

using Instant = std::chrono::system_clock::time_point;

inline constexpr std::chrono::seconds defaultValidity{31'536'000};  // 365 days of 86,400 s

struct Validity {
    Instant validFrom;
    Instant validTo;
};

// From now, for the default validity.
Validity startValidity();

// The lifetime of the whole number of days in the text (optional sign, ASCII digits, nothing
// else). Throws "Certificate validity must be number of days, got '<text>'".
std::chrono::seconds validityDays(std::string_view daysText);

// UTCTime YYMMDDHHMMSSZ in UTC, fractions dropped; instants from 2050 on (and before 1950) are
// written as GeneralizedTime YYYYMMDDHHMMSSZ, since a two-digit "50" reads as 1950.
der::Record utcTimeRecord(Instant instant);

}  // namespace keyloft::x509
