#include "platform/key_processor/object_identifier.hpp"

namespace keyloft::platform::key_processor {
namespace {

constexpr std::array<std::uint8_t, 4> magic{'K', 'L', 'B', 'K'};

}  // namespace

Bytes ObjectIdentifierHeader::encode() const {
    return {magic[0],
            magic[1],
            magic[2],
            magic[3],
            currentVersion,
            static_cast<std::uint8_t>(backEnd),
            static_cast<std::uint8_t>(sizeInBits >> 8U),
            static_cast<std::uint8_t>(sizeInBits),
            static_cast<std::uint8_t>(accessControl >> 24U),
            static_cast<std::uint8_t>(accessControl >> 16U),
            static_cast<std::uint8_t>(accessControl >> 8U),
            static_cast<std::uint8_t>(accessControl)};
}

std::optional<ObjectIdentifierHeader> ObjectIdentifierHeader::decode(ByteView identifier) {
    if (identifier.size() < size || !std::equal(magic.begin(), magic.end(), identifier.begin()) ||
        identifier[4] != currentVersion) {
        return std::nullopt;
    }
    ObjectIdentifierHeader header;
    header.backEnd = static_cast<char>(identifier[5]);
    header.sizeInBits = static_cast<std::uint16_t>((identifier[6] << 8U) | identifier[7]);
    header.accessControl = (static_cast<std::uint32_t>(identifier[8]) << 24U) |
                           (identifier[9] << 16U) | (identifier[10] << 8U) | identifier[11];
    return header;
}

}  // namespace keyloft::platform::key_processor
