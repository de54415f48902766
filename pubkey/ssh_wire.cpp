#include "pubkey/ssh_wire.hpp"

#include <limits>

#include "base/error.hpp"

namespace keyloft::pubkey {
namespace {

std::uint32_t fieldLength(std::size_t size) {
    if (size > std::numeric_limits<std::uint32_t>::max()) {
        throw KeyloftError::generic("field too long for the SSH wire encoding");
    }
    return static_cast<std::uint32_t>(size);
}

}  // namespace

void appendUInt32(Bytes& buffer, std::uint32_t value) {
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        buffer.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

void appendString(Bytes& buffer, std::string_view text) {
    appendUInt32(buffer, fieldLength(text.size()));
    buffer.insert(buffer.end(), text.begin(), text.end());
}

void appendData(Bytes& buffer, ByteView data) {
    appendUInt32(buffer, fieldLength(data.size()));
    buffer.insert(buffer.end(), data.begin(), data.end());
}

void appendMPInt(Bytes& buffer, ByteView magnitude) {
    const bool highBitSet = !magnitude.empty() && magnitude.front() >= 0x80;
    if (!highBitSet) {
        appendData(buffer, magnitude);
        return;
    }
    appendUInt32(buffer, fieldLength(magnitude.size() + 1));
    buffer.push_back(0x00);
    buffer.insert(buffer.end(), magnitude.begin(), magnitude.end());
}

}  // namespace keyloft::pubkey
