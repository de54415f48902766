#pragma once

#include <optional>
#include <string_view>

namespace keyloft {

// The key types a new identity can have; the "-ne" types are made inside the key processor.
enum class KeyType { p256, p384, p521, p256ne, p384ne };
enum class KeyProtection { bio, none };

std::string_view word(KeyType type);
std::string_view word(KeyProtection protection);
std::optional<KeyType> keyTypeFromWord(std::string_view word);
std::optional<KeyProtection> keyProtectionFromWord(std::string_view word);

}  // namespace keyloft
