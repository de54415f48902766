#include "platform/plist/plist_extension.hpp"

#include <algorithm>
#include <limits>

#include "base/error.hpp"
#include "platform/plist/plist_format.hpp"

namespace keyloft::platform::plist {
namespace {

using format::appendUnsigned;

// Where the objects end. Only a list whose objects lie in the order of their numbers, none
// running into the next, is extended: then the room after each object is known from the next
// one's offset alone.
std::uint64_t objectsEndOf(const PlistReader& list) {
    std::uint64_t end = 0;
    for (std::uint64_t object = 0; object < list.layout().objectCount; ++object) {
        if (list.offsetOf(object) < end)
            throw PlatformError("property list is not laid out in the order of its objects");
        end = list.endOf(object);
    }
    return end;
}

// Objects the list can number: as many as its offset table has entries for, and its references
// can name.
std::uint64_t objectLimitOf(const PlistReader::Layout& layout) {
    const std::uint64_t entries = (layout.trailer - layout.table) / layout.offsetSize;
    if (layout.referenceSize >= 8) return entries;
    return std::min(entries, std::uint64_t{1} << (8U * layout.referenceSize));
}

bool fits(std::uint64_t value, std::uint8_t width) {
    return width >= 8 || value < (std::uint64_t{1} << (8U * width));
}

}  // namespace

PlistExtension::PlistExtension(const PlistReader& list)
    : list_(list),
      layout_(list.layout()),
      objectsEnd_(objectsEndOf(list)),
      writer_(layout_.referenceSize, layout_.objectCount, objectLimitOf(layout_), objectsEnd_) {}

std::uint64_t PlistExtension::objectRoom() const {
    const std::uint64_t limit = objectLimitOf(layout_);
    const std::uint64_t used = layout_.objectCount + writer_.offsets_.size();
    return limit > used ? limit - used : 0;
}

std::uint64_t PlistExtension::roomAfter(Object object, std::uint64_t end) const {
    const std::uint64_t next =
        object + 1 < layout_.objectCount ? list_.offsetOf(object + 1) : objectsEnd_;
    return next - end;
}

bool PlistExtension::extendArray(Object array, std::span<const Object> elements) {
    const auto growable = list_.growableArray(array);
    if (!growable) return false;
    const std::uint64_t count = growable->count + elements.size();
    const std::uint64_t used = growable->elementsAt + growable->count * layout_.referenceSize;
    const std::uint64_t room = roomAfter(array, used) / layout_.referenceSize;
    if (!fits(count, growable->countWidth) || elements.size() > room) return false;
    BytePatch countPatch{growable->countAt, {}};
    appendUnsigned(countPatch.bytes, count, growable->countWidth);
    BytePatch elementsPatch{used, {}};
    for (const Object element : elements)
        appendUnsigned(elementsPatch.bytes, element, layout_.referenceSize);
    patches_.push_back(std::move(countPatch));
    patches_.push_back(std::move(elementsPatch));
    return true;
}

std::optional<std::vector<BytePatch>> PlistExtension::finish(Object top) {
    const Bytes& objects = writer_.out_;
    if (objects.size() > layout_.table - objectsEnd_) return std::nullopt;
    const std::uint64_t count = layout_.objectCount + writer_.offsets_.size();
    BytePatch offsets{layout_.table + layout_.objectCount * layout_.offsetSize, {}};
    for (const std::uint64_t offset : writer_.offsets_) {
        // A list written elsewhere may have offsets too narrow for its room.
        if (!fits(offset, layout_.offsetSize)) return std::nullopt;
        appendUnsigned(offsets.bytes, offset, layout_.offsetSize);
    }
    BytePatch trailer{layout_.trailer, {}};
    format::appendTrailer(trailer.bytes,
                          {layout_.offsetSize, layout_.referenceSize, count, top, layout_.table});
    auto patches = std::move(patches_);
    if (!objects.empty()) patches.push_back({objectsEnd_, objects});
    if (!offsets.bytes.empty()) patches.push_back(std::move(offsets));
    patches.push_back(std::move(trailer));
    return patches;
}

}  // namespace keyloft::platform::plist
