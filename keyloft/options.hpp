#pragma once

#include <array>
#include <optional>
#include <string_view>

#include "keys/key_type.hpp"
#include "pubkey/hash_type.hpp"

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

std::string_view word(ArgumentKey key);

std::optional<ArgumentKey> argumentKeyFromWord(std::string_view word);

}  // namespace keyloft
