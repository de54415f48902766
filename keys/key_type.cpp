#include "keys/key_type.hpp"

#include "base/word_table.hpp"

namespace keyloft {
namespace {

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

}  // namespace

std::string_view word(KeyType type) {
    return wordIn(keyTypeWords, type);
}
std::string_view word(KeyProtection protection) {
    return wordIn(keyProtectionWords, protection);
}
std::optional<KeyType> keyTypeFromWord(std::string_view word) {
    return valueIn(keyTypeWords, word);
}
std::optional<KeyProtection> keyProtectionFromWord(std::string_view word) {
    return valueIn(keyProtectionWords, word);
}

}  // namespace keyloft
