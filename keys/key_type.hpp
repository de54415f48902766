#pragma once

#include <optional>
#include <string_view>

namespace keyloft {

// The key types a new identity can have; the "-ne" types are made inside the key processor.
enum class KeyType { p256, p384, p521, p256ne, p384ne, rsa2048, rsa3072, rsa2048ne, rsa3072ne };

// What a key type makes: the key's size in bits (RSA for 2048 and 3072, else EC) and whether it is
// made inside the key processor.
struct KeyShape {
    int sizeInBits;
    bool inProcessor;
};
KeyShape shapeOf(KeyType type);
enum class KeyProtection { bio, none };

std::string_view word(KeyType type);
std::string_view word(KeyProtection protection);
std::optional<KeyType> keyTypeFromWord(std::string_view word);
std::optional<KeyProtection> keyProtectionFromWord(std::string_view word);

}  // namespace keyloft
