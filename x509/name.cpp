#include "x509/name.hpp"

#include <algorithm>
#include <string_view>

#include "der/object_identifiers.hpp"

namespace keyloft::x509 {
namespace {

using der::Record;

struct Part {
    std::optional<std::string> Name::*field;
    ByteView type;
};

constexpr Part commonName{&Name::commonName, der::oid::commonName};
constexpr Part email{&Name::email, der::oid::emailAddress};
constexpr Part organization{&Name::organization, der::oid::organizationName};
constexpr Part organizationalUnit{&Name::organizationalUnit, der::oid::organizationalUnitName};
constexpr Part locality{&Name::locality, der::oid::localityName};
constexpr Part stateOrProvince{&Name::stateOrProvince, der::oid::stateOrProvinceName};
constexpr Part country{&Name::country, der::oid::countryName};

// The PrintableString character set of X.680.
bool isPrintableString(std::string_view text) {
    constexpr std::string_view punctuation = " '()+,-./:=?";
    return std::ranges::all_of(text, [&](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
               punctuation.find(c) != punctuation.npos;
    });
}

Record requestValue(const Part& part, const std::string& text) {
    if (part.field == &Name::email) return der::asciiStringRecord(der::tag::ia5String, text);
    // Authorities expect a PrintableString country; other text keeps every character.
    if (part.field == &Name::country && isPrintableString(text))
        return der::asciiStringRecord(der::tag::printableString, text);
    return der::primitiveRecord(der::tag::utf8String, bytesOf(text));
}

template <class Value>
Record nameRecord(const Name& name, std::initializer_list<Part> order, Value value) {
    Record::Children rdns;
    for (const auto& part : order) {
        const auto& text = name.*part.field;
        if (!text) continue;
        rdns.push_back(
            der::setRecord({der::sequenceRecord({der::oidRecord(part.type), value(part, *text)})}));
    }
    return der::sequenceRecord(std::move(rdns));
}

}  // namespace

Record certificateName(const Name& name) {
    return nameRecord(
        name,
        {country, stateOrProvince, locality, organization, organizationalUnit, commonName, email},
        [](const Part&, const std::string& text) {
            return der::asciiStringRecord(der::tag::ia5String, text);
        });
}

Record requestName(const Name& name) {
    return nameRecord(
        name,
        {commonName, email, organizationalUnit, organization, locality, stateOrProvince, country},
        requestValue);
}

}  // namespace keyloft::x509
