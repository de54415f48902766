#include "keyloft/options.hpp"

#include "base/word_table.hpp"

namespace keyloft {
namespace {

constexpr WordTable<ArgumentKey, 15> argumentWords{{
    {ArgumentKey::hash, "h"},
    {ArgumentKey::label, "l"},
    {ArgumentKey::keyType, "k"},
    {ArgumentKey::keyProtection, "prot"},
    {ArgumentKey::fileName, "f"},
    {ArgumentKey::password, "p"},
    {ArgumentKey::hashType, "t"},
    {ArgumentKey::hashEncoding, "e"},
    {ArgumentKey::commonName, "CN"},
    {ArgumentKey::email, "E"},
    {ArgumentKey::organizationalUnit, "OU"},
    {ArgumentKey::organization, "O"},
    {ArgumentKey::locality, "L"},
    {ArgumentKey::stateOrProvince, "ST"},
    {ArgumentKey::country, "C"},
}};

}  // namespace

std::string_view word(ArgumentKey key) {
    return wordIn(argumentWords, key);
}

std::optional<ArgumentKey> argumentKeyFromWord(std::string_view word) {
    return valueIn(argumentWords, word);
}

}  // namespace keyloft
