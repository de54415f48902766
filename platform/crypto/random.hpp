#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace keyloft::platform::crypto {

// Fills the buffer from the cryptographically secure generator; false when it fails.
[[nodiscard]] bool randomBytes(std::span<std::uint8_t> out) noexcept;

// The 16 bytes of a random (version 4) UUID, in its own byte order.
std::array<std::uint8_t, 16> randomUuid();

}  // namespace keyloft::platform::crypto
