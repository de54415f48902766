// Whatever the bytes, the DER reader gives an element or nothing, and agrees with a plain reading
// of the header written here from the rules: one-byte tag number below 31, definite length in its
// shortest form of at most four bytes, content inside the input. An element read, and every
// element inside it down to the depth bound, is rebuilt as records that the encoder writes back as
// exactly the bytes read.

#include <cstdlib>
#include <optional>

#include "der/reader.hpp"
#include "der/record.hpp"

namespace {

using keyloft::Bytes;
using keyloft::ByteView;
namespace der = keyloft::der;

void check(bool condition) {
    if (!condition) std::abort();
}

// The header's size and the content's length when the bytes start with a DER header whose content
// fits; nothing otherwise.
std::optional<std::pair<std::size_t, std::size_t>> plainHeader(ByteView bytes) {
    if (bytes.size() < 2 || (bytes[0] & 0x1F) == 0x1F) return std::nullopt;
    if (bytes[1] < 0x80) {
        if (bytes[1] > bytes.size() - 2) return std::nullopt;
        return std::pair<std::size_t, std::size_t>{2, bytes[1]};
    }
    const std::size_t count = bytes[1] - 0x80;
    if (count < 1 || count > 4 || bytes.size() < 2 + count || bytes[2] == 0) return std::nullopt;
    std::uint64_t length = 0;
    for (std::size_t i = 0; i < count; ++i) length = length * 256 + bytes[2 + i];
    if (length < 128 || length > bytes.size() - 2 - count) return std::nullopt;
    return std::pair<std::size_t, std::size_t>{2 + count, static_cast<std::size_t>(length)};
}

// The element as records: constructed where every element inside reads to the end, else
// primitive. Checks each element against the plain reading on the way down.
der::Record rebuild(const der::Element& element) {
    const auto header = plainHeader(element.encoding);
    check(header && header->first + header->second == element.encoding.size() &&
          element.content.data() == element.encoding.data() + header->first &&
          element.depth <= der::maxDepth);
    if (element.isConstructed()) {
        der::Cursor cursor(element);
        der::Record::Children children;
        std::size_t used = 0;
        while (const auto child = cursor.next()) {
            check(child->depth == element.depth + 1 &&
                  child->encoding.data() == element.content.data() + used);
            used += child->encoding.size();
            children.push_back(rebuild(*child));
        }
        if (cursor.atEnd()) return der::constructedRecord(element.tag, std::move(children));
        // Only what follows not being an element, or the depth bound, ends a walk short.
        check(element.depth == der::maxDepth || !plainHeader(element.content.subspan(used)));
    }
    return der::primitiveRecord(element.tag, element.content);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ByteView input(data, size);
    const auto element = der::readElement(input);
    const auto header = plainHeader(input);
    check(element.has_value() == header.has_value());
    if (!element) return 0;
    check(element->tag == input[0] && element->depth == 0);
    check(der::encode(rebuild(*element)) ==
          Bytes(element->encoding.begin(), element->encoding.end()));
    check(der::readSingleElement(input).has_value() == (element->encoding.size() == size));
    return 0;
}
