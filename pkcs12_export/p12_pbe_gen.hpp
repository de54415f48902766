#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/bytes.hpp"
#include "platform/crypto/secret.hpp"

namespace keyloft::pkcs12_export {

enum class PbeId : std::uint8_t { key = 1, iv = 2, mac = 3 };

// The PKCS#12 password-based derivation with SHA-1: fills out and answers 0, or answers -1 and
// leaves out untouched (no password, empty salt, no memory, the password cannot be encoded).
int p12_pbe_gen(std::optional<std::string_view> password, ByteView salt, std::uint32_t iterations,
                PbeId id, std::span<std::uint8_t> out) noexcept;

// The derived bytes, or the tool's error with the given message.
platform::crypto::SecretBytes pbeKey(std::string_view password, ByteView salt,
                                     std::uint32_t iterations, PbeId id, std::size_t length,
                                     const std::string& failureMessage);

// 20 bytes for the integrity MAC, or "Failed to generate pbe".
platform::crypto::SecretBytes pbeMacKey(std::string_view password, ByteView salt,
                                        std::uint32_t iterations);

}  // namespace keyloft::pkcs12_export
