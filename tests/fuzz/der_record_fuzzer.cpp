// Whatever the bytes, reading them as one DER record gives a record or nothing. A record read
// encodes back to the same tag and content, and to the input itself unless its length was written
// longer than needed; constructed contents split into records that encode back the same way.

#include <algorithm>
#include <cstdlib>
#include <optional>

#include "der/ber_tlv_record.hpp"

namespace {

using keyloft::Bytes;
using keyloft::ByteView;
namespace der = keyloft::der;

constexpr int maxDepth = 16;
constexpr std::uint8_t constructedBit = 0x20;

void check(bool condition) {
    if (!condition) std::abort();
}

// Whether the length octets after the tag are the shortest form of their value.
bool hasMinimalLength(ByteView encoding) {
    const std::uint8_t first = encoding[1];
    if (first < 0x80) return true;
    const std::size_t count = first & 0x7FU;
    return encoding[2] != 0 && (count > 1 || encoding[2] >= 0x80);
}

// The record re-encodes to the bytes it came from (up to the length form), and reads back.
void checkRoundTrip(const der::BerTlvRecord& record, ByteView encoding) {
    const Bytes again = der::encode(record);
    const Bytes& content = record.bytes();
    check(again[0] == encoding[0] && again.size() >= content.size() + 2 &&
          std::equal(content.begin(), content.end(),
                     again.end() - static_cast<std::ptrdiff_t>(content.size())));
    if (hasMinimalLength(encoding)) check(again == Bytes(encoding.begin(), encoding.end()));
    const auto reread = der::parseRecord(again);
    check(reread && reread->tag() == record.tag() && reread->bytes() == record.bytes());
}

// Splits constructed contents into records, re-encodes them as one constructed record and checks
// that this gives the primitive form's encoding whenever every length was minimal.
void checkContents(const der::BerTlvRecord& record, int depth) {
    if (depth > maxDepth || !(record.tag() & constructedBit)) return;
    const auto children = der::parseContents(record.bytes());
    if (!children) return;
    Bytes joined;
    for (const auto& child : *children) {
        const Bytes encoded = der::encode(child);
        joined.insert(joined.end(), encoded.begin(), encoded.end());
        checkContents(child, depth + 1);
    }
    if (joined == record.bytes()) {
        check(der::encode(der::constructedRecord(record.tag(), *children)) == der::encode(record));
    }
    const auto reread = der::parseContents(joined);
    check(reread && reread->size() == children->size());
    for (std::size_t i = 0; i < children->size(); ++i) check((*reread)[i] == (*children)[i]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ByteView input(data, size);
    const auto record = der::parseRecord(input);
    if (!record) return 0;
    check(!record->isConstructed() && record->bytes().size() < size);
    checkRoundTrip(*record, input);
    checkContents(*record, 0);
    return 0;
}
