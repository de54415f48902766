#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "base/bytes.hpp"

namespace keyloft::platform::key_processor {

// Header shared by every back end's object identifiers:
// "KLBK", format version, back end, key size in bits (2 bytes), access-control word (4 bytes),
// all big-endian.
struct ObjectIdentifierHeader {
    static constexpr std::size_t size = 12;
    static constexpr std::uint8_t currentVersion = 1;

    char backEnd = 0;
    std::uint16_t sizeInBits = 0;
    std::uint32_t accessControl = 0;

    Bytes encode() const;
    // Nothing when the bytes do not start with a header of the current version.
    static std::optional<ObjectIdentifierHeader> decode(ByteView identifier);
};

inline constexpr char softBackEnd = 's';
inline constexpr char tpmBackEnd = 't';

}  // namespace keyloft::platform::key_processor
