#pragma once

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "base/bytes.hpp"

namespace keyloft::testing {

// The bytes with the patches written over them, as a store writes them in place.
inline Bytes patched(Bytes bytes, const std::vector<BytePatch>& patches) {
    for (const auto& patch : patches) {
        if (patch.offset > bytes.size() || patch.bytes.size() > bytes.size() - patch.offset)
            throw std::out_of_range("patch past the end");
        std::copy(patch.bytes.begin(), patch.bytes.end(),
                  bytes.begin() + static_cast<std::ptrdiff_t>(patch.offset));
    }
    return bytes;
}

}  // namespace keyloft::testing
