#include "keyloft/command_line.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "base/error.hpp"
#include "keyloft/keyloft_app.hpp"

namespace keyloft {
namespace {

ParsedCommandLine parse(std::vector<std::string_view> words) {
    words.insert(words.begin(), "keyloft");
    return parseCommandLine(words);
}

std::string parseError(std::vector<std::string_view> words) {
    try {
        parse(std::move(words));
    } catch (const KeyloftError& error) {
        EXPECT_EQ(error.errorCase(), KeyloftError::Case::genericError);
        return error.text();
    }
    return "no error";
}

struct ErrorCase {
    std::vector<std::string_view> words;
    std::string message;
};

class ParserErrors : public ::testing::TestWithParam<ErrorCase> {};

TEST_P(ParserErrors, RaiseTheExactMessage) {
    EXPECT_EQ(parseError(GetParam().words), GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, ParserErrors,
    ::testing::Values(
        ErrorCase{{}, "Missing sub-command"},
        ErrorCase{{"-l", "x", "List-Identities"}, "Missing sub-command"},
        ErrorCase{{"delete-identity", "-h", "AB", "CD"}, "Unexpected commandline argument 'CD'"},
        ErrorCase{{"list-identities", "value"}, "Unexpected commandline argument 'value'"},
        ErrorCase{{"create-identity", "--l"}, "Unrecognized commandline option '--l'"},
        ErrorCase{{"create-identity", "-"}, "Unrecognized commandline option '-'"},
        ErrorCase{{"create-identity", "-help"}, "Unrecognized commandline option '-help'"},
        ErrorCase{{"create-identity", "-cn", "x"}, "Unrecognized commandline option '-cn'"}));

TEST(Parser, SkipsEverythingBeforeTheCommandWord) {
    const auto parsed = parse({"foo", "-l", "x", "create-identity"});
    EXPECT_EQ(parsed.command, Command::createIdentity);
    EXPECT_TRUE(parsed.options.empty());
    EXPECT_EQ(parse({"foo", "list-identities"}).command, Command::listIdentities);
}

TEST(Parser, LastOccurrenceWinsAndBareOptionsAreEmpty) {
    EXPECT_EQ(parse({"create-identity", "-l", "a", "-l", "b"}).options.at(ArgumentKey::label), "b");
    EXPECT_EQ(parse({"create-identity", "-l", "a", "-l"}).options.at(ArgumentKey::label), "");
    const auto parsed = parse({"create-identity", "-l", "-k", "p-256", "-E"});
    EXPECT_EQ(parsed.options.at(ArgumentKey::label), "");
    EXPECT_EQ(parsed.options.at(ArgumentKey::keyType), "p-256");
    EXPECT_EQ(parsed.options.at(ArgumentKey::email), "");
}

TEST(Parser, EmptyArgumentsKeepTheOptionPending) {
    const auto parsed = parse({"", "create-identity", "-l", "", "Mail"});
    EXPECT_EQ(parsed.options.at(ArgumentKey::label), "Mail");
}

TEST(Parser, OptionHMeansHash) {
    EXPECT_EQ(parse({"delete-identity", "-h", "ab"}).options.at(ArgumentKey::hash), "ab");
}

OptionFields fieldsOf(std::vector<std::string_view> words) {
    return optionFieldsFrom(parse(std::move(words)).options);
}

TEST(OptionFields, Defaults) {
    const auto fields = fieldsOf({"list-identities"});
    EXPECT_EQ(fields.hashType, HashType::sha1);
    EXPECT_EQ(fields.hashEncoding, HashEncoding::hex);
    EXPECT_EQ(fields.keyProtection, KeyProtection::none);
    EXPECT_FALSE(fields.label);
    EXPECT_FALSE(fields.keyType);
    EXPECT_EQ(fields.commonName, "");
    EXPECT_EQ(fields.country, "");
}

struct HashCase {
    std::vector<std::string_view> words;
    std::optional<HashType> type;
    std::optional<HashEncoding> encoding;
};

class HashOptions : public ::testing::TestWithParam<HashCase> {};

TEST_P(HashOptions, ConvertWithDefaults) {
    const auto fields = fieldsOf(GetParam().words);
    EXPECT_EQ(fields.hashType, GetParam().type);
    EXPECT_EQ(fields.hashEncoding, GetParam().encoding);
}

INSTANTIATE_TEST_SUITE_P(
    Words, HashOptions,
    ::testing::Values(
        HashCase{{"list-identities", "-t", "sha256"}, HashType::sha256, HashEncoding::base64},
        HashCase{{"list-identities", "-t", "ssh"}, HashType::ssh, HashEncoding::base64},
        HashCase{{"list-identities", "-t", "ssh", "-e", "hex"}, HashType::ssh, HashEncoding::hex},
        HashCase{
            {"list-identities", "-t", "sha1", "-e", "b64"}, HashType::sha1, HashEncoding::base64},
        HashCase{{"list-identities", "-t"}, std::nullopt, HashEncoding::base64},
        HashCase{{"list-identities", "-t", "SHA1"}, std::nullopt, HashEncoding::base64},
        HashCase{{"list-identities", "-e", "base64"}, HashType::sha1, std::nullopt}));

TEST(OptionFields, CommonNameFallsBackToTheLabel) {
    EXPECT_EQ(fieldsOf({"create-identity", "-l", "Mail"}).commonName, "Mail");
    EXPECT_EQ(fieldsOf({"create-identity", "-l", "Mail", "-CN", "Alice"}).commonName, "Alice");
    EXPECT_EQ(fieldsOf({"create-identity", "-l", "Mail", "-CN"}).commonName, "");
}

TEST(OptionFields, KeyTypeWordsAreCaseSensitive) {
    EXPECT_EQ(fieldsOf({"create-identity", "-k", "p-384-ne"}).keyType, KeyType::p384ne);
    EXPECT_FALSE(fieldsOf({"create-identity", "-k", "P-256"}).keyType);
    EXPECT_FALSE(fieldsOf({"create-identity", "-k"}).keyType);
}

TEST(OptionFields, ProtectionWordsOutsideTheVocabularyAreRejected) {
    EXPECT_EQ(fieldsOf({"create-identity", "-prot", "bio"}).keyProtection, KeyProtection::bio);
    EXPECT_THROW(fieldsOf({"create-identity", "-prot", "BIO"}), KeyloftError);
    EXPECT_THROW(fieldsOf({"create-identity", "-prot"}), KeyloftError);
}

}  // namespace
}  // namespace keyloft
