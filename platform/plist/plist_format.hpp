#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

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

}  // namespace keyloft::platform::plist::format
