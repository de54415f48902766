#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace keyloft {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

// Bytes written over a stored value at an offset, the value keeping its length.
struct BytePatch {
    std::size_t offset = 0;
    Bytes bytes;

    bool operator==(const BytePatch&) const = default;
};

// Writes the patches over the bytes; throws std::out_of_range for one that reaches past their end.
inline void applyPatches(Bytes& bytes, std::span<const BytePatch> patches) {
    for (const auto& patch : patches) {
        if (patch.offset > bytes.size() || patch.bytes.size() > bytes.size() - patch.offset)
            throw std::out_of_range("patch past the end of the bytes");
        std::copy(patch.bytes.begin(), patch.bytes.end(),
                  bytes.begin() + static_cast<std::ptrdiff_t>(patch.offset));
    }
}

inline Bytes bytesOf(std::string_view text) {
    return {text.begin(), text.end()};
}

inline Bytes bytesOf(ByteView bytes) {
    return {bytes.begin(), bytes.end()};
}

inline Bytes concat(std::initializer_list<ByteView> parts) {
    Bytes out;
    for (auto part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

}  // namespace keyloft
