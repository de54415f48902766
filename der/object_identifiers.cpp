#include "der/object_identifiers.hpp"

#include <algorithm>
#include <map>
#include <mutex>

namespace keyloft::der {
namespace {

// Orders stored OIDs and looked-up views alike, so a lookup copies nothing.
struct ContentOrder {
    using is_transparent = void;
    bool operator()(ByteView left, ByteView right) const {
        return std::ranges::lexicographical_compare(left, right);
    }
};

}  // namespace

Record oidRecord(ByteView oid) {
    static std::mutex mutex;
    static std::map<Bytes, Record, ContentOrder> records;
    const std::scoped_lock lock(mutex);
    auto found = records.find(oid);
    if (found == records.end())
        found =
            records
                .emplace(Bytes(oid.begin(), oid.end()), primitiveRecord(tag::objectIdentifier, oid))
                .first;
    return found->second;
}

}  // namespace keyloft::der
