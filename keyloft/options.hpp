#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace keyloft {

// The fifteen options, in index order; raw values are the names typed after one dash.
enum class ArgumentKey {
    hash,
    label,
    keyType,
    keyProtection,
    fileName,
    password,
    hashType,
    hashEncoding,
    commonName,
    email,
    organizationalUnit,
    organization,
    locality,
    stateOrProvince,
    country,
};

enum class KeyType { p256, p384, p521, p256ne, p384ne };
enum class KeyProtection { bio, none };
enum class HashType { sha1, sha256, ssh };
enum class HashEncoding { hex, base64 };

std::string_view word(ArgumentKey key);
std::string_view word(KeyType type);
std::string_view word(KeyProtection protection);
std::string_view word(HashType type);
std::string_view word(HashEncoding encoding);

std::optional<ArgumentKey> argumentKeyFromWord(std::string_view word);
std::optional<KeyType> keyTypeFromWord(std::string_view word);
std::optional<KeyProtection> keyProtectionFromWord(std::string_view word);
std::optional<HashType> hashTypeFromWord(std::string_view word);
std::optional<HashEncoding> hashEncodingFromWord(std::string_view word);

}  // namespace keyloft
