#include "keys/key_type.hpp"

#include "base/word_table.hpp"

namespace keyloft {
namespace {

constexpr WordTable<KeyType, 9> keyTypeWords{{
    {KeyType::p256, "p-256"},
    {KeyType::p384, "p-384"},
    {KeyType::p521, "p-521"},
    {KeyType::p256ne, "p-256-ne"},
    {KeyType::p384ne, "p-384-ne"},
    {KeyType::rsa2048, "rsa-2048"},
    {KeyType::rsa3072, "rsa-3072"},
    {KeyType::rsa2048ne, "rsa-2048-ne"},
    {KeyType::rsa3072ne, "rsa-3072-ne"},
}};

constexpr WordTable<KeyProtection, 2> keyProtectionWords{{
    {KeyProtection::bio, "bio"},
    {KeyProtection::none, "none"},
}};

}  // namespace

KeyShape shapeOf(KeyType type) {
    switch (type) {
        case KeyType::p256:
            return {256, false};
        case KeyType::p384:
            return {384, false};
        case KeyType::p521:
            return {521, false};
        case KeyType::p256ne:
            return {256, true};
        case KeyType::p384ne:
            return {384, true};
        case KeyType::rsa2048:
            return {2048, false};
        case KeyType::rsa3072:
            return {3072, false};
        case KeyType::rsa2048ne:
            return {2048, true};
        case KeyType::rsa3072ne:
            return {3072, true};
    }
    return {256, false};
}

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
