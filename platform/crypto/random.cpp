#include "platform/crypto/random.hpp"

#include <openssl/rand.h>

#include "base/error.hpp"

namespace keyloft::platform::crypto {

bool randomBytes(std::span<std::uint8_t> out) noexcept {
    return out.empty() || RAND_bytes(out.data(), static_cast<int>(out.size())) == 1;
}

std::array<std::uint8_t, 16> randomUuid() {
    std::array<std::uint8_t, 16> uuid{};
    if (!randomBytes(uuid)) throw PlatformError("random generator failed");
    uuid[6] = static_cast<std::uint8_t>((uuid[6] & 0x0F) | 0x40);  // version 4
    uuid[8] = static_cast<std::uint8_t>((uuid[8] & 0x3F) | 0x80);  // RFC 4122 variant
    return uuid;
}

}  // namespace keyloft::platform::crypto
