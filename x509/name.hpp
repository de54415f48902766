#pragma once

#include <optional>
#include <string>

#include "der/record.hpp"

namespace keyloft::x509 {

// A subject: each part absent or a text, as UTF-8. An empty text still gets its attribute.
struct Name {
    std::optional<std::string> commonName;
    std::optional<std::string> email;
    std::optional<std::string> organization;
    std::optional<std::string> organizationalUnit;
    std::optional<std::string> locality;
    std::optional<std::string> stateOrProvince;
    std::optional<std::string> country;

    bool operator==(const Name&) const = default;
};

// The name as the card's self-signed certificates carry it: one RDN per present part, in the order
// C, ST, L, O, OU, CN, E, every value an IA5String (a character outside ASCII becomes '?').
der::Record certificateName(const Name& name);

// The name as certification requests carry it: one RDN per present part, in the order CN, E, OU,
// O, L, ST, C. The e-mail address is an IA5String, the country a PrintableString when its text
// fits that set, and every other value a UTF8String holding the text unchanged.
der::Record requestName(const Name& name);

}  // namespace keyloft::x509
