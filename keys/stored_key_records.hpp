#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "base/bytes.hpp"

namespace keyloft::keys {

enum class BiometryProtection { off, on };

std::string_view rawValue(BiometryProtection protection);
std::optional<BiometryProtection> biometryProtectionFromRaw(std::string_view raw);

// A key pair held by the key processor; keyData is its opaque object identifier.
struct BoundKey {
    Bytes pubKeyHash;
    Bytes keyData;
    BiometryProtection biometryProtection = BiometryProtection::off;

    bool operator==(const BoundKey&) const = default;
};

// A software key pair whose private key is kept only as an ECIES ciphertext under a
// processor-held wrapping key.
struct SealedKey {
    Bytes pubKeyHash;
    std::string keyType;
    Bytes wrappedPrivateKey;
    Bytes wrappingPrivateKeyData;
    BiometryProtection biometryProtection = BiometryProtection::off;

    bool operator==(const SealedKey&) const = default;
};

// Built with exactly one record; a decoded one may hold neither.
struct KeyStorage {
    std::optional<BoundKey> boundKey;
    std::optional<SealedKey> sealedKey;

    bool operator==(const KeyStorage&) const = default;
};

// Stored keys by public-key hash, compared byte for byte.
using StoredKeyMap = std::map<Bytes, KeyStorage>;

inline constexpr std::int64_t currentDataVersion = 1;

}  // namespace keyloft::keys
