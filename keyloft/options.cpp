#include "keyloft/options.hpp"

#include <algorithm>
#include <utility>

namespace keyloft {
namespace {

template <class Enum, std::size_t N>
using WordTable = std::array<std::pair<Enum, std::string_view>, N>;

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

constexpr WordTable<KeyType, 5> keyTypeWords{{
    {KeyType::p256, "p-256"},
    {KeyType::p384, "p-384"},
    {KeyType::p521, "p-521"},
    {KeyType::p256ne, "p-256-ne"},
    {KeyType::p384ne, "p-384-ne"},
}};

constexpr WordTable<KeyProtection, 2> keyProtectionWords{{
    {KeyProtection::bio, "bio"},
    {KeyProtection::none, "none"},
}};

constexpr WordTable<HashType, 3> hashTypeWords{{
    {HashType::sha1, "sha1"},
    {HashType::sha256, "sha256"},
    {HashType::ssh, "ssh"},
}};

constexpr WordTable<HashEncoding, 2> hashEncodingWords{{
    {HashEncoding::hex, "hex"},
    {HashEncoding::base64, "b64"},
}};

template <class Enum, std::size_t N>
std::string_view wordIn(const WordTable<Enum, N>& table, Enum value) {
    const auto* entry = std::find_if(table.begin(), table.end(), [&](const auto& candidate) {
        return candidate.first == value;
    });
    return entry->second;
}

// Vocabulary words are matched exactly and case-sensitively.
template <class Enum, std::size_t N>
std::optional<Enum> valueIn(const WordTable<Enum, N>& table, std::string_view word) {
    const auto* entry = std::find_if(table.begin(), table.end(), [&](const auto& candidate) {
        return candidate.second == word;
    });
    if (entry == table.end()) return std::nullopt;
    return entry->first;
}

}  // namespace

std::string_view word(ArgumentKey key) {
    return wordIn(argumentWords, key);
}
std::string_view word(KeyType type) {
    return wordIn(keyTypeWords, type);
}
std::string_view word(KeyProtection protection) {
    return wordIn(keyProtectionWords, protection);
}
std::string_view word(HashType type) {
    return wordIn(hashTypeWords, type);
}
std::string_view word(HashEncoding encoding) {
    return wordIn(hashEncodingWords, encoding);
}

std::optional<ArgumentKey> argumentKeyFromWord(std::string_view word) {
    return valueIn(argumentWords, word);
}
std::optional<KeyType> keyTypeFromWord(std::string_view word) {
    return valueIn(keyTypeWords, word);
}
std::optional<KeyProtection> keyProtectionFromWord(std::string_view word) {
    return valueIn(keyProtectionWords, word);
}
std::optional<HashType> hashTypeFromWord(std::string_view word) {
    return valueIn(hashTypeWords, word);
}
std::optional<HashEncoding> hashEncodingFromWord(std::string_view word) {
    return valueIn(hashEncodingWords, word);
}

}  // namespace keyloft
