#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "base/bytes.hpp"

namespace keyloft::platform::plist {

// Unused space a list keeps for objects added later in place (see PlistExtension): bytes after
// its objects, and entries after its offset table.
struct PlistRoom {
    std::size_t bytes = 0;
    std::uint64_t objects = 0;
};

// Writes a binary property list ("bplist00") object by object: each call writes one object and
// answers its number, which containers written later refer to, so a list is written from its
// leaves up and no tree of it is ever built.
class PlistWriter {
  public:
    using Object = std::uint64_t;

    // At most this many objects will be written, counting those the room is for; it sizes the
    // object references. The list is expected to take about the given number of bytes.
    explicit PlistWriter(std::uint64_t objectLimit, std::size_t expectedSize = 0);

    Object data(ByteView bytes);
    // Throws PlatformError for text that is not UTF-8 or holds a NUL character.
    Object text(std::string_view text);
    Object integer(std::int64_t value);
    // An array with room for more elements, added in place later, when spare is not zero.
    Object array(std::span<const Object> elements, std::uint64_t spare = 0);
    Object dictionary(std::span<const std::pair<Object, Object>> entries);

    // The whole list with the object as its top, keeping the room.
    Bytes finish(Object top, PlistRoom room = {});

  private:
    friend class PlistExtension;
    // Continues a list: objects numbered from firstObject, written from the offset onwards.
    PlistWriter(std::uint8_t referenceSize, std::uint64_t firstObject, std::uint64_t objectLimit,
                std::uint64_t offset);

    Object begin();
    void marker(std::uint8_t kind, std::uint64_t size);
    void appendReference(Object object);

    std::uint8_t referenceSize_;
    std::uint64_t firstObject_ = 0;
    std::uint64_t objectLimit_;
    std::uint64_t offset_ = 0;  // where out_ starts in the list
    Bytes out_;
    std::vector<std::uint64_t> offsets_;
};

}  // namespace keyloft::platform::plist
