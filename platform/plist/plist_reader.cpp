#include "platform/plist/plist_reader.hpp"

#include <algorithm>

#include "base/error.hpp"
#include "base/utf8.hpp"
#include "platform/plist/plist_format.hpp"

namespace keyloft::platform::plist {
namespace {

[[noreturn]] void unreadable() {
    throw PlatformError("data is not a binary property list");
}

// A big-endian unsigned integer of 1 to 8 bytes at the offset; nothing when outside the bytes.
std::optional<std::uint64_t> readUnsigned(ByteView bytes, std::uint64_t offset,
                                          std::uint64_t width) {
    if (width == 0 || width > 8 || offset > bytes.size() || width > bytes.size() - offset)
        return std::nullopt;
    std::uint64_t value = 0;
    for (std::uint64_t i = 0; i < width; ++i) value = (value << 8U) | bytes[offset + i];
    return value;
}

// Big-endian UTF-16 to UTF-8; an unpaired surrogate is not text.
std::string fromUtf16(ByteView units) {
    std::string out;
    for (std::size_t i = 0; i < units.size(); i += 2) {
        std::uint32_t unit = (units[i] << 8U) | units[i + 1];
        if (unit >= 0xD800 && unit <= 0xDBFF && i + 3 < units.size()) {
            const std::uint32_t low = (units[i + 2] << 8U) | units[i + 3];
            if (low >= 0xDC00 && low <= 0xDFFF) {
                unit = 0x10000 + ((unit - 0xD800) << 10U) + (low - 0xDC00);
                i += 2;
            }
        }
        if (unit >= 0xD800 && unit <= 0xDFFF)
            throw PlatformError("property-list string is not valid UTF-8");
        appendUtf8(out, unit);
    }
    return out;
}

}  // namespace

std::string_view kindName(PlistKind kind) {
    switch (kind) {
        case PlistKind::dictionary:
            return "dictionary";
        case PlistKind::array:
            return "array";
        case PlistKind::data:
            return "data";
        case PlistKind::string:
            return "string";
        case PlistKind::integer:
            return "integer";
        case PlistKind::boolean:
            return "boolean";
        case PlistKind::real:
            return "real";
        case PlistKind::date:
            return "date";
        case PlistKind::uid:
            return "uid";
        case PlistKind::unknown:
            break;
    }
    return "unknown";
}

PlistReader::PlistReader(ByteView bytes) : bytes_(bytes) {
    if (bytes.size() < format::magic.size() + format::trailerSize ||
        !std::equal(format::magic.data(), format::magic.data() + format::magic.size(),
                    bytes.begin())) {
        unreadable();
    }
    const std::size_t trailer = bytes.size() - format::trailerSize;
    offsetSize_ = bytes[trailer + 6];
    referenceSize_ = bytes[trailer + 7];
    const auto count = readUnsigned(bytes, trailer + 8, 8);
    const auto top = readUnsigned(bytes, trailer + 16, 8);
    const auto table = readUnsigned(bytes, trailer + 24, 8);
    if (offsetSize_ == 0 || offsetSize_ > 8 || referenceSize_ == 0 || referenceSize_ > 8 ||
        !count || !top || !table || *table < format::magic.size() || *table > trailer ||
        *count > (trailer - *table) / offsetSize_ || *top >= *count) {
        unreadable();
    }
    objectCount_ = *count;
    top_ = *top;
    table_ = *table;
}

std::uint64_t PlistReader::offsetOf(Object object) const {
    if (object >= objectCount_) unreadable();
    const auto offset = readUnsigned(bytes_, table_ + object * offsetSize_, offsetSize_);
    // Objects lie between the header and the offset table.
    if (!offset || *offset < format::magic.size() || *offset >= table_) unreadable();
    return *offset;
}

PlistKind PlistReader::kind(Object object) const {
    const std::uint8_t marker = bytes_[offsetOf(object)];
    switch (marker >> 4U) {
        case format::dictionaryKind:
            return PlistKind::dictionary;
        case format::arrayKind:
            return PlistKind::array;
        case format::dataKind:
            return PlistKind::data;
        case format::asciiKind:
        case format::utf16Kind:
            return PlistKind::string;
        case format::integerKind:
            return PlistKind::integer;
        case format::simpleKind:
            return marker == 0x08 || marker == 0x09 ? PlistKind::boolean : PlistKind::unknown;
        case format::realKind:
            return PlistKind::real;
        case format::dateKind:
            return PlistKind::date;
        case format::uidKind:
            return PlistKind::uid;
        default:
            return PlistKind::unknown;
    }
}

PlistReader::Layout PlistReader::layout() const {
    return {offsetSize_, referenceSize_, objectCount_, table_, bytes_.size() - format::trailerSize};
}

std::uint64_t PlistReader::endOf(Object object) const {
    const std::uint64_t offset = offsetOf(object);
    const std::uint8_t marker = bytes_[offset];
    const auto fixed = [&](std::uint64_t width) {
        if (width > table_ - offset - 1) unreadable();
        return offset + 1 + width;
    };
    const auto contents = [&](std::uint64_t unit) {
        const auto at = contentsAt(offset, unit);
        return at.position + at.size * unit;
    };
    switch (marker >> 4U) {
        case format::simpleKind:
            return offset + 1;
        case format::integerKind:
        case format::realKind:
            return fixed(1ULL << (marker & 0x0FU));
        case format::dateKind:
            return fixed(8);
        case format::uidKind:
            return fixed((marker & 0x0FU) + 1ULL);
        case format::dataKind:
        case format::asciiKind:
            return contents(1);
        case format::utf16Kind:
            return contents(2);
        case format::arrayKind:
            return contents(referenceSize_);
        case format::dictionaryKind:
            return contents(2ULL * referenceSize_);
        default:
            unreadable();
    }
}

std::optional<PlistReader::GrowableArray> PlistReader::growableArray(Object array) const {
    const std::uint64_t offset = offsetOf(array);
    if (bytes_[offset] != (format::arrayKind << 4U | format::sizeFollows)) return std::nullopt;
    const auto contents = contentsAt(offset, referenceSize_);
    return GrowableArray{offset + 2, static_cast<std::uint8_t>(contents.position - offset - 2),
                         contents.size, contents.position};
}

PlistReader::Contents PlistReader::contentsOf(Object object, std::uint64_t unit) const {
    return contentsAt(offsetOf(object), unit);
}

PlistReader::Contents PlistReader::contentsAt(std::uint64_t offset, std::uint64_t unit) const {
    std::uint64_t position = offset;
    const std::uint8_t marker = bytes_[position++];
    std::uint64_t size = marker & 0x0FU;
    if (size == format::sizeFollows) {
        if (position >= table_ || (bytes_[position] >> 4U) != format::integerKind) unreadable();
        const std::uint64_t width = 1ULL << (bytes_[position] & 0x0FU);
        const auto value = width <= 8 ? readUnsigned(bytes_, position + 1, width) : std::nullopt;
        if (!value || position + 1 + width > table_) unreadable();
        size = *value;
        position += 1 + width;
    }
    if (size > (table_ - position) / unit) unreadable();
    return {size, position};
}

ByteView PlistReader::data(Object object) const {
    const auto contents = contentsOf(object, 1);
    return bytes_.subspan(contents.position, contents.size);
}

std::string PlistReader::text(Object object) const {
    const bool wide = (bytes_[offsetOf(object)] >> 4U) == format::utf16Kind;
    const auto contents = contentsOf(object, wide ? 2 : 1);
    const auto units = bytes_.subspan(contents.position, contents.size * (wide ? 2 : 1));
    std::string text = wide ? fromUtf16(units) : std::string(units.begin(), units.end());
    if (text.find('\0') != std::string::npos)
        throw PlatformError("property-list string holds a NUL character");
    if (!isUtf8(text)) throw PlatformError("property-list string is not valid UTF-8");
    return text;
}

std::int64_t PlistReader::integer(Object object) const {
    const std::uint64_t position = offsetOf(object);
    const std::uint64_t width = 1ULL << (bytes_[position] & 0x0FU);
    if (width > 16 || width > table_ - position - 1) unreadable();
    const auto value = readUnsigned(bytes_, position + 1 + (width > 8 ? width - 8 : 0),
                                    std::min<std::uint64_t>(width, 8));
    return static_cast<std::int64_t>(*value);
}

PlistReader::Object PlistReader::reference(std::uint64_t position, std::uint64_t index) const {
    return *readUnsigned(bytes_, position + index * referenceSize_, referenceSize_);
}

std::size_t PlistReader::size(Object container) const {
    return contentsOf(container, kind(container) == PlistKind::dictionary ? 2 * referenceSize_
                                                                          : referenceSize_)
        .size;
}

std::vector<PlistReader::Object> PlistReader::elements(Object array) const {
    const auto contents = contentsOf(array, referenceSize_);
    std::vector<Object> objects;
    objects.reserve(contents.size);
    for (std::uint64_t i = 0; i < contents.size; ++i)
        objects.push_back(reference(contents.position, i));
    return objects;
}

std::string_view PlistReader::keyName(Object key, std::string& wide) const {
    Key& known = keys_[key % keys_.size()];
    if (known.object == key) return known.name;
    const std::uint64_t offset = offsetOf(key);
    // The keys the tool looks for are ASCII, stored as ASCII strings; others are read whole.
    switch (bytes_[offset] >> 4U) {
        case format::asciiKind: {
            const auto at = contentsAt(offset, 1);
            known = {key, {reinterpret_cast<const char*>(bytes_.data() + at.position), at.size}};
            return known.name;
        }
        case format::utf16Kind:
            wide = text(key);
            return wide;
        default:
            unreadable();
    }
}

void PlistReader::members(Object dictionary, std::span<const std::string_view> keys,
                          std::span<std::optional<Object>> found) const {
    const auto contents = contentsOf(dictionary, 2 * referenceSize_);
    for (std::uint64_t i = 0; i < contents.size; ++i) {
        std::string wide;
        const std::string_view name = keyName(reference(contents.position, i), wide);
        for (std::size_t k = 0; k < keys.size(); ++k) {
            if (name == keys[k]) found[k] = reference(contents.position, contents.size + i);
        }
    }
}

std::optional<PlistReader::Object> PlistReader::member(Object dictionary,
                                                       std::string_view key) const {
    std::optional<Object> found;
    members(dictionary, std::span(&key, 1), std::span(&found, 1));
    return found;
}

}  // namespace keyloft::platform::plist
