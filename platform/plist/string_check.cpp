#include "platform/plist/string_check.hpp"

#include <algorithm>
#include <optional>
#include <vector>

#include "base/error.hpp"

namespace keyloft::platform::plist {
namespace {

constexpr std::uint64_t headerSize = 8;
constexpr std::uint64_t trailerSize = 32;
constexpr std::uint8_t asciiStringKind = 0x5;
constexpr std::uint8_t utf16StringKind = 0x6;
constexpr std::uint8_t integerKind = 0x1;
constexpr std::uint8_t lengthFollows = 0x0F;

// A big-endian unsigned integer of 1 to 8 bytes; nothing when it does not lie inside the bytes.
std::optional<std::uint64_t> readUnsigned(ByteView bytes, std::uint64_t offset,
                                          std::uint64_t width) {
    if (width == 0 || width > 8 || offset > bytes.size() || width > bytes.size() - offset) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    for (std::uint64_t i = 0; i < width; ++i) value = (value << 8U) | bytes[offset + i];
    return value;
}

[[noreturn]] void unreadable() {
    throw PlatformError("data is not a binary property list");
}

// Checks the string object at the offset, if it is one; objects end before the offset table.
void checkObject(ByteView bytes, std::uint64_t offset, std::uint64_t end) {
    if (offset < headerSize || offset >= end) unreadable();
    const std::uint8_t marker = bytes[offset];
    const unsigned kind = marker >> 4U;
    if (kind != asciiStringKind && kind != utf16StringKind) return;
    std::uint64_t position = offset + 1;
    std::uint64_t count = marker & 0x0FU;
    if (count == lengthFollows) {
        if (position >= end || (bytes[position] >> 4U) != integerKind) unreadable();
        const std::uint64_t width = 1ULL << (bytes[position] & 0x0FU);
        const auto length =
            width <= end - position - 1 ? readUnsigned(bytes, position + 1, width) : std::nullopt;
        if (!length) unreadable();
        count = *length;
        position += 1 + width;
    }
    const std::uint64_t unitSize = kind == asciiStringKind ? 1 : 2;
    if (count > (end - position) / unitSize) unreadable();
    for (std::uint64_t i = 0; i < count; ++i) {
        const auto unit = bytes.subspan(position + i * unitSize, unitSize);
        if (std::all_of(unit.begin(), unit.end(), [](std::uint8_t byte) { return byte == 0; })) {
            throw PlatformError("property-list string holds a NUL character");
        }
    }
}

}  // namespace

void checkBinaryPlistStrings(ByteView bytes) {
    if (bytes.size() < headerSize + trailerSize) unreadable();
    const std::uint64_t trailer = bytes.size() - trailerSize;
    const std::uint64_t offsetSize = bytes[trailer + 6];
    const auto objectCount = readUnsigned(bytes, trailer + 8, 8);
    const auto tableOffset = readUnsigned(bytes, trailer + 24, 8);
    if (offsetSize == 0 || offsetSize > 8 || !objectCount || !tableOffset ||
        *tableOffset > trailer || *objectCount > (trailer - *tableOffset) / offsetSize) {
        unreadable();
    }
    // Several entries may name one object; each is read once.
    std::vector<std::uint64_t> offsets;
    offsets.reserve(*objectCount);
    for (std::uint64_t i = 0; i < *objectCount; ++i) {
        const auto offset = readUnsigned(bytes, *tableOffset + i * offsetSize, offsetSize);
        if (!offset) unreadable();
        offsets.push_back(*offset);
    }
    std::sort(offsets.begin(), offsets.end());
    offsets.erase(std::unique(offsets.begin(), offsets.end()), offsets.end());
    for (const std::uint64_t offset : offsets) checkObject(bytes, offset, *tableOffset);
}

}  // namespace keyloft::platform::plist
