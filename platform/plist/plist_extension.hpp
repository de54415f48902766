#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "base/bytes.hpp"
#include "platform/plist/plist_reader.hpp"
#include "platform/plist/plist_writer.hpp"

namespace keyloft::platform::plist {

// Adds objects to a list in the room it was written with (PlistRoom), as changes to its
// bytes in place: the list keeps its length, so that its store rewrites only the parts that
// changed, whatever the size of the list. Objects the top no longer reaches stay unread in it.
class PlistExtension {
  public:
    using Object = PlistWriter::Object;

    // The list must outlive the extension. Throws PlatformError for a list it cannot read, or
    // whose objects are not laid out in the order of their numbers (as PlistWriter writes them).
    explicit PlistExtension(const PlistReader& list);

    // How many objects can still be added.
    std::uint64_t objectRoom() const;
    // Writes the new objects, numbered after the list's.
    PlistWriter& writer() { return writer_; }
    // Appends the elements to an array of the list written with spare room, in place; false when
    // the array has too little room left. Once per array.
    bool extendArray(Object array, std::span<const Object> elements);
    // The changes to the list's bytes, with the object as its top; nothing when the new objects
    // do not fit in the room the list has left.
    std::optional<std::vector<BytePatch>> finish(Object top);

  private:
    // Free bytes from the end of the object's bytes up to the next object.
    std::uint64_t roomAfter(Object object, std::uint64_t end) const;

    const PlistReader& list_;
    PlistReader::Layout layout_;
    std::uint64_t objectsEnd_ = 0;  // where the list's objects end and the room starts
    PlistWriter writer_;
    std::vector<BytePatch> patches_;
};

}  // namespace keyloft::platform::plist
