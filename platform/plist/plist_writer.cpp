#include "platform/plist/plist_writer.hpp"

#include <algorithm>
#include <bit>

#include "base/error.hpp"
#include "base/utf8.hpp"
#include "platform/plist/plist_format.hpp"

namespace keyloft::platform::plist {
namespace {

using format::appendUnsigned;
using format::widthFor;

std::uint8_t integerMarker(std::uint8_t width) {
    return static_cast<std::uint8_t>(format::integerKind << 4U | std::countr_zero(width));
}

// Big-endian UTF-16 code units of valid UTF-8 text.
void appendUtf16(Bytes& out, std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<std::uint8_t>(text[i]);
        const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        std::uint32_t codePoint =
            length == 1 ? lead : lead & (0xFFU >> static_cast<unsigned>(length + 1));
        for (std::size_t j = 1; j < length; ++j)
            codePoint = (codePoint << 6U) | (static_cast<std::uint8_t>(text[i + j]) & 0x3FU);
        if (codePoint >= 0x10000) {
            codePoint -= 0x10000;
            appendUnsigned(out, 0xD800 + (codePoint >> 10U), 2);
            appendUnsigned(out, 0xDC00 + (codePoint & 0x3FFU), 2);
        } else {
            appendUnsigned(out, codePoint, 2);
        }
        i += length;
    }
}

std::uint64_t utf16Length(std::string_view text) {
    std::uint64_t units = 0;
    for (const char c : text) {
        const auto byte = static_cast<std::uint8_t>(c);
        if ((byte & 0xC0U) != 0x80) units += byte >= 0xF0 ? 2 : 1;
    }
    return units;
}

}  // namespace

PlistWriter::PlistWriter(std::uint64_t objectLimit, std::size_t expectedSize)
    : referenceSize_(widthFor(objectLimit)), objectLimit_(objectLimit) {
    out_.reserve(expectedSize);
    offsets_.reserve(objectLimit);
    out_.assign(format::magic.data(), format::magic.data() + format::magic.size());
}

PlistWriter::PlistWriter(std::uint8_t referenceSize, std::uint64_t firstObject,
                         std::uint64_t objectLimit, std::uint64_t offset)
    : referenceSize_(referenceSize),
      firstObject_(firstObject),
      objectLimit_(objectLimit),
      offset_(offset) {}

PlistWriter::Object PlistWriter::begin() {
    if (firstObject_ + offsets_.size() >= objectLimit_)
        throw PlatformError("property list has more objects than announced");
    offsets_.push_back(offset_ + out_.size());
    return firstObject_ + offsets_.size() - 1;
}

void PlistWriter::marker(std::uint8_t kind, std::uint64_t size) {
    if (size < format::sizeFollows) {
        out_.push_back(static_cast<std::uint8_t>(kind << 4U | size));
        return;
    }
    out_.push_back(static_cast<std::uint8_t>(kind << 4U | format::sizeFollows));
    const std::uint8_t width = widthFor(size);
    out_.push_back(integerMarker(width));
    appendUnsigned(out_, size, width);
}

void PlistWriter::appendReference(Object object) {
    appendUnsigned(out_, object, referenceSize_);
}

PlistWriter::Object PlistWriter::data(ByteView bytes) {
    const Object object = begin();
    marker(format::dataKind, bytes.size());
    out_.insert(out_.end(), bytes.begin(), bytes.end());
    return object;
}

PlistWriter::Object PlistWriter::text(std::string_view text) {
    if (text.find('\0') != std::string_view::npos || !isUtf8(text)) {
        throw PlatformError(
            "cannot write a property-list string that is not UTF-8 text without NUL characters");
    }
    const Object object = begin();
    if (std::all_of(text.begin(), text.end(),
                    [](char c) { return static_cast<std::uint8_t>(c) < 0x80; })) {
        marker(format::asciiKind, text.size());
        out_.insert(out_.end(), text.begin(), text.end());
    } else {
        marker(format::utf16Kind, utf16Length(text));
        appendUtf16(out_, text);
    }
    return object;
}

PlistWriter::Object PlistWriter::integer(std::int64_t value) {
    const Object object = begin();
    // Non-negative values take the fewest bytes; negative ones are 8-byte two's complement.
    const auto bits = static_cast<std::uint64_t>(value);
    const std::uint8_t width = value < 0 ? 8 : widthFor(bits);
    out_.push_back(integerMarker(width));
    appendUnsigned(out_, bits, width);
    return object;
}

PlistWriter::Object PlistWriter::array(std::span<const Object> elements, std::uint64_t spare) {
    const Object object = begin();
    if (spare == 0) {
        marker(format::arrayKind, elements.size());
    } else {
        // The count is its own integer, wide enough for the spare elements, so that it can be
        // rewritten in place.
        out_.push_back(format::arrayKind << 4U | format::sizeFollows);
        const std::uint8_t width = widthFor(elements.size() + spare);
        out_.push_back(integerMarker(width));
        appendUnsigned(out_, elements.size(), width);
    }
    for (const Object element : elements) appendReference(element);
    out_.insert(out_.end(), spare * referenceSize_, 0);
    return object;
}

PlistWriter::Object PlistWriter::dictionary(std::span<const std::pair<Object, Object>> entries) {
    const Object object = begin();
    marker(format::dictionaryKind, entries.size());
    for (const auto& entry : entries) appendReference(entry.first);
    for (const auto& entry : entries) appendReference(entry.second);
    return object;
}

Bytes PlistWriter::finish(Object top, PlistRoom room) {
    out_.insert(out_.end(), room.bytes, 0);
    const std::uint64_t table = out_.size();
    const std::uint8_t offsetSize = widthFor(table);
    for (const std::uint64_t offset : offsets_) appendUnsigned(out_, offset, offsetSize);
    out_.insert(out_.end(), room.objects * offsetSize, 0);
    format::appendTrailer(out_, {offsetSize, referenceSize_, offsets_.size(), top, table});
    return std::move(out_);
}

}  // namespace keyloft::platform::plist
