#include "keyloft/subject_options.hpp"

#include <array>
#include <string_view>
#include <vector>

#include "x509/validity.hpp"

namespace keyloft {
namespace {

using Part = std::optional<std::string> x509::Name::*;

// The subject options in the order create-identity reads them, each with the part it fills.
std::array<std::pair<const std::string*, Part>, 7> subjectOptions(const OptionFields& fields) {
    return {{{&fields.commonName, &x509::Name::commonName},
             {&fields.email, &x509::Name::email},
             {&fields.organizationalUnit, &x509::Name::organizationalUnit},
             {&fields.organization, &x509::Name::organization},
             {&fields.locality, &x509::Name::locality},
             {&fields.stateOrProvince, &x509::Name::stateOrProvince},
             {&fields.country, &x509::Name::country}}};
}

void appendSplitAtSemicolons(std::vector<std::string_view>& components, std::string_view text) {
    for (;;) {
        const auto end = text.find(';');
        components.push_back(text.substr(0, end));
        if (end == std::string_view::npos) return;
        text.remove_prefix(end + 1);
    }
}

}  // namespace

x509::Name requestSubject(const OptionFields& fields) {
    x509::Name name;
    for (const auto& [value, part] : subjectOptions(fields)) {
        if (!value->empty()) name.*part = *value;
    }
    return name;
}

CertificateSubject certificateSubject(const OptionFields& fields) {
    const auto options = subjectOptions(fields);
    std::vector<std::string_view> components;
    std::optional<std::string> days;
    for (std::size_t i = 0; i < options.size() && !days; ++i) {
        std::string_view value = *options[i].first;
        if (const auto bar = value.find('|'); bar != std::string_view::npos) {
            std::string rest(value.substr(bar + 1));
            for (std::size_t j = i + 1; j < options.size() && rest.find('|') == rest.npos; ++j)
                (rest += ';') += *options[j].first;
            days = rest.substr(0, rest.find('|'));
            value = value.substr(0, bar);
        }
        appendSplitAtSemicolons(components, value);
    }

    CertificateSubject subject;
    const bool noText = components.size() == 1 && components[0].empty();
    if (!noText && components.size() <= options.size()) {
        for (std::size_t i = 0; i < components.size(); ++i) {
            if (i == 0 || !components[i].empty())
                subject.name.*options[i].second = std::string(components[i]);
        }
    }
    if (days) subject.lifetime = x509::validityDays(*days);
    return subject;
}

}  // namespace keyloft
