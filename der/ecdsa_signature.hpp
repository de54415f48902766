#pragma once

#include <cstddef>
#include <optional>

#include "base/bytes.hpp"

namespace keyloft::der {

// An ECDSA-Sig-Value (SEQUENCE of r and s) as r || s, each left-padded to the field size;
// nothing when the bytes are not such a value or a number does not fit.
std::optional<Bytes> rawEcdsaSignature(ByteView signature, std::size_t fieldSize);

}  // namespace keyloft::der
