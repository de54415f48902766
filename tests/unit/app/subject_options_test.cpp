#include "keyloft/subject_options.hpp"

#include <gtest/gtest.h>

#include "base/error.hpp"

namespace keyloft {
namespace {

using namespace std::chrono_literals;

struct Options {
    std::string commonName = "L";  // the label, as when -CN is not given
    std::string email;
    std::string organizationalUnit;
    std::string organization;
    std::string locality;
    std::string stateOrProvince;
    std::string country;
};

OptionFields fieldsOf(const Options& options) {
    OptionFields fields;
    fields.commonName = options.commonName;
    fields.email = options.email;
    fields.organizationalUnit = options.organizationalUnit;
    fields.organization = options.organization;
    fields.locality = options.locality;
    fields.stateOrProvince = options.stateOrProvince;
    fields.country = options.country;
    return fields;
}

struct SubjectCase {
    const char* what;
    Options options;
    x509::Name name;
    std::optional<std::chrono::seconds> lifetime;
};

class CertificateSubjects : public ::testing::TestWithParam<SubjectCase> {};

TEST_P(CertificateSubjects, ReadAsCreateIdentityAlwaysHas) {
    const auto& expected = GetParam();
    const auto subject = certificateSubject(fieldsOf(expected.options));
    EXPECT_EQ(subject.name, expected.name);
    EXPECT_EQ(subject.lifetime, expected.lifetime);
}

INSTANTIATE_TEST_SUITE_P(
    Options, CertificateSubjects,
    ::testing::Values(
        SubjectCase{"label", {}, {.commonName = "L"}, std::nullopt},
        SubjectCase{"all",
                    {"A", "B", "C", "D", "E", "F", "G"},
                    {.commonName = "A",
                     .email = "B",
                     .organization = "D",
                     .organizationalUnit = "C",
                     .locality = "E",
                     .stateOrProvince = "F",
                     .country = "G"},
                    std::nullopt},
        SubjectCase{"emptyCommonName", {.commonName = ""}, {.commonName = ""}, std::nullopt},
        SubjectCase{"semicolonEmptiesTheSubject", {.commonName = "a;b"}, {}, std::nullopt},
        SubjectCase{"semicolonShiftsTheParts",
                    {.commonName = "a;b|4|"},
                    {.commonName = "a", .email = "b"},
                    4 * 24h},
        SubjectCase{
            "daysInTheCountry", {.country = "x|7"}, {.commonName = "L", .country = "x"}, 7 * 24h},
        SubjectCase{"daysAlone", {.country = "|5"}, {.commonName = "L"}, 5 * 24h},
        SubjectCase{"daysAfterTooManyParts", {.email = "x;y", .country = "|9"}, {}, 9 * 24h},
        SubjectCase{"negativeDays", {.commonName = "b|-2|x"}, {.commonName = "b"}, -2 * 24h},
        SubjectCase{"noSubjectText", {.commonName = "|3|"}, {}, 3 * 24h}),
    [](const auto& test) { return std::string(test.param.what); });

TEST(CertificateSubject, DaysRunThroughTheLaterOptionsToTheNextBar) {
    for (const auto& [options, text] : std::vector<std::pair<Options, std::string>>{
             {{.commonName = "|"}, ";;;;;;"},
             {{.commonName = "Al|", .email = "1", .country = "DE"}, ";1;;;;;DE"},
             {{.stateOrProvince = "a|3", .country = "4|z"}, "3;4"},
             {{.organization = "x|", .locality = "12|", .country = "DE"}, ";12"},
             {{.commonName = "a||3"}, ""}}) {
        try {
            certificateSubject(fieldsOf(options));
            ADD_FAILURE() << text;
        } catch (const KeyloftError& error) {
            EXPECT_EQ(error.text(),
                      "Certificate validity must be number of days, got '" + text + "'");
        }
    }
}

TEST(RequestSubject, NonEmptyOptionsTakenAsGiven) {
    const auto name = requestSubject(fieldsOf({.commonName = "a;b|3", .country = "DE"}));
    EXPECT_EQ(name, (x509::Name{.commonName = "a;b|3", .country = "DE"}));
    EXPECT_EQ(requestSubject(fieldsOf({.commonName = ""})), x509::Name{});
}

}  // namespace
}  // namespace keyloft
