#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/bytes.hpp"

// The "bplist00" format: a header, the objects, a table of their offsets, and a 32-byte trailer
// naming the sizes of offsets and of object references, the object count, the top object and
// where the table starts. Each object starts with a marker: its kind in the high nibble and, in
// the low one, a size, or 0xF when an integer object holding the size follows.
namespace keyloft::platform::plist::format {

inline constexpr std::string_view magic = "bplist00";
inline constexpr std::size_t trailerSize = 32;
inline constexpr std::uint8_t sizeFollows = 0x0F;

enum Kind : std::uint8_t {
    simpleKind = 0x0,  // null, booleans, fill
    integerKind = 0x1,
    realKind = 0x2,
    dateKind = 0x3,
    dataKind = 0x4,
    asciiKind = 0x5,
    utf16Kind = 0x6,
    uidKind = 0x8,
    arrayKind = 0xA,
    dictionaryKind = 0xD,
};

// Bytes needed for an unsigned value: 1, 2, 4 or 8.
inline std::uint8_t widthFor(std::uint64_t value) {
    if (value <= 0xFF) return 1;
    if (value <= 0xFFFF) return 2;
    if (value <= 0xFFFFFFFF) return 4;
    return 8;
}

inline void appendUnsigned(Bytes& out, std::uint64_t value, std::uint8_t width) {
    for (int shift = (width - 1) * 8; shift >= 0; shift -= 8)
        out.push_back(static_cast<std::uint8_t>(value >> static_cast<unsigned>(shift)));
}

struct Trailer {
    std::uint8_t offsetSize;
    std::uint8_t referenceSize;
    std::uint64_t objectCount;
    std::uint64_t top;
    std::uint64_t table;  // where the offset table starts
};

inline void appendTrailer(Bytes& out, const Trailer& trailer) {
    out.insert(out.end(), 6, 0);
    out.push_back(trailer.offsetSize);
    out.push_back(trailer.referenceSize);
    appendUnsigned(out, trailer.objectCount, 8);
    appendUnsigned(out, trailer.top, 8);
    appendUnsigned(out, trailer.table, 8);
}

}  // namespace keyloft::platform::plist::format
