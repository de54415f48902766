#include "platform/plist/binary_plist.hpp"

#include <algorithm>
#include <bit>
#include <limits>
#include <optional>
#include <string_view>
#include <type_traits>

#include "base/error.hpp"
#include "platform/plist/utf8_text.hpp"

// The "bplist00" format: a header, the objects, a table of their offsets, and a 32-byte trailer
// naming the sizes of offsets and object references, the object count, the top object and where
// the table starts. Each object starts with a marker: its kind in the high nibble, and in the low
// one a size, or 0xF when an integer object with the size follows.
namespace keyloft::platform::plist {
namespace {

constexpr std::string_view magic = "bplist00";
constexpr std::size_t trailerSize = 32;
constexpr std::uint8_t sizeFollows = 0x0F;

enum Kind : std::uint8_t {
    simpleKind = 0x0,  // null, booleans, fill
    integerKind = 0x1,
    realKind = 0x2,
    dateKind = 0x3,
    dataKind = 0x4,
    asciiKind = 0x5,
    utf16Kind = 0x6,
    uidKind = 0x8,
    arrayKind = 0xA,
    dictionaryKind = 0xD,
};

// The stored layout is four levels deep; anything far deeper is not ours and would only cost stack.
constexpr int maxDepth = 64;

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

std::string utf8Of(std::uint32_t codePoint) {
    std::string out;
    if (codePoint < 0x80) {
        out += static_cast<char>(codePoint);
    } else if (codePoint < 0x800) {
        out += static_cast<char>(0xC0 | (codePoint >> 6U));
        out += static_cast<char>(0x80 | (codePoint & 0x3FU));
    } else if (codePoint < 0x10000) {
        out += static_cast<char>(0xE0 | (codePoint >> 12U));
        out += static_cast<char>(0x80 | ((codePoint >> 6U) & 0x3FU));
        out += static_cast<char>(0x80 | (codePoint & 0x3FU));
    } else {
        out += static_cast<char>(0xF0 | (codePoint >> 18U));
        out += static_cast<char>(0x80 | ((codePoint >> 12U) & 0x3FU));
        out += static_cast<char>(0x80 | ((codePoint >> 6U) & 0x3FU));
        out += static_cast<char>(0x80 | (codePoint & 0x3FU));
    }
    return out;
}

class Reader {
  public:
    explicit Reader(ByteView bytes) : bytes_(bytes) {
        if (bytes.size() < magic.size() + trailerSize ||
            !std::equal(magic.begin(), magic.end(), bytes.begin())) {
            unreadable();
        }
        const std::size_t trailer = bytes.size() - trailerSize;
        offsetSize_ = bytes[trailer + 6];
        referenceSize_ = bytes[trailer + 7];
        const auto count = readUnsigned(bytes, trailer + 8, 8);
        const auto top = readUnsigned(bytes, trailer + 16, 8);
        const auto table = readUnsigned(bytes, trailer + 24, 8);
        if (offsetSize_ == 0 || offsetSize_ > 8 || referenceSize_ == 0 || referenceSize_ > 8 ||
            !count || !top || !table || *table < magic.size() || *table > trailer ||
            *count > (trailer - *table) / offsetSize_ || *top >= *count) {
            unreadable();
        }
        objectCount_ = *count;
        top_ = *top;
        table_ = *table;
        // Every node but the top one stands for a reference in a container, so a list whose
        // containers share objects cannot grow into more nodes than it has bytes.
        nodeBudget_ = bytes.size();
    }

    PlistValue read() { return readObject(top_, 0); }

  private:
    // Where the object's bytes start; objects lie between the header and the offset table.
    std::uint64_t offsetOf(std::uint64_t object) const {
        if (object >= objectCount_) unreadable();
        const auto offset = readUnsigned(bytes_, table_ + object * offsetSize_, offsetSize_);
        if (!offset || *offset < magic.size() || *offset >= table_) unreadable();
        return *offset;
    }

    // The object's size from its marker's low nibble or the integer after it; moves the position
    // past them.
    std::uint64_t sizeAt(std::uint8_t marker, std::uint64_t& position) const {
        const std::uint64_t nibble = marker & 0x0FU;
        if (nibble != sizeFollows) return nibble;
        if (position >= table_ || (bytes_[position] >> 4U) != integerKind) unreadable();
        const std::uint64_t width = 1ULL << (bytes_[position] & 0x0FU);
        const auto size = width <= 8 ? readUnsigned(bytes_, position + 1, width) : std::nullopt;
        if (!size || position + 1 + width > table_) unreadable();
        position += 1 + width;
        return *size;
    }

    // The bytes of `count` units of `unit` bytes at the position, inside the object area.
    ByteView span(std::uint64_t position, std::uint64_t count, std::uint64_t unit) const {
        if (position > table_ || count > (table_ - position) / unit) unreadable();
        return bytes_.subspan(position, count * unit);
    }

    std::uint64_t reference(ByteView references, std::uint64_t index) const {
        return *readUnsigned(references, index * referenceSize_, referenceSize_);
    }

    std::string keyAt(std::uint64_t object, int depth) {
        auto key = readObject(object, depth);
        auto* text = std::get_if<std::string>(&key.value);
        if (text == nullptr) unreadable();
        return std::move(*text);
    }

    PlistValue readObject(std::uint64_t object, int depth) {
        if (depth > maxDepth) throw PlatformError("property list is nested too deeply");
        if (nodeBudget_-- == 0) throw PlatformError("property list repeats its objects too often");
        std::uint64_t position = offsetOf(object);
        const std::uint8_t marker = bytes_[position++];
        switch (marker >> 4U) {
            case integerKind: {
                const std::uint64_t width = 1ULL << (marker & 0x0FU);
                if (width > 16) unreadable();
                // 16-byte integers are read as their low 64 bits.
                const auto digits = span(position, width, 1);
                const auto value = readUnsigned(digits, width > 8 ? width - 8 : 0,
                                                std::min<std::uint64_t>(width, 8));
                return {static_cast<std::int64_t>(*value)};
            }
            case dataKind: {
                const std::uint64_t size = sizeAt(marker, position);
                const auto data = span(position, size, 1);
                return {Bytes(data.begin(), data.end())};
            }
            case asciiKind: {
                const std::uint64_t size = sizeAt(marker, position);
                const auto units = span(position, size, 1);
                return {checkedText(std::string(units.begin(), units.end()))};
            }
            case utf16Kind: {
                const std::uint64_t size = sizeAt(marker, position);
                const auto units = span(position, size, 2);
                return {checkedText(fromUtf16(units))};
            }
            case arrayKind: {
                const std::uint64_t count = sizeAt(marker, position);
                const auto references = span(position, count, referenceSize_);
                PlistArray array;
                array.reserve(count);
                for (std::uint64_t i = 0; i < count; ++i)
                    array.push_back(readObject(reference(references, i), depth + 1));
                return {std::move(array)};
            }
            case dictionaryKind:
                return {readDictionary(marker, position, depth)};
            case simpleKind:
                return {
                    PlistUnsupported{(marker == 0x08 || marker == 0x09) ? "boolean" : "unknown"}};
            case realKind:
                return {PlistUnsupported{"real"}};
            case dateKind:
                return {PlistUnsupported{"date"}};
            case uidKind:
                return {PlistUnsupported{"uid"}};
            default:
                return {PlistUnsupported{"unknown"}};
        }
    }

    PlistDictionary readDictionary(std::uint8_t marker, std::uint64_t position, int depth) {
        const std::uint64_t count = sizeAt(marker, position);
        const auto references = span(position, count, 2 * referenceSize_);
        PlistDictionary dictionary;
        dictionary.reserve(count);
        for (std::uint64_t i = 0; i < count; ++i) {
            std::string key = keyAt(reference(references, i), depth + 1);
            PlistValue value = readObject(reference(references, count + i), depth + 1);
            // A key written twice keeps its later value, so that a key occurs once in the tree.
            const auto existing =
                std::find_if(dictionary.begin(), dictionary.end(),
                             [&](const auto& entry) { return entry.first == key; });
            if (existing != dictionary.end()) {
                existing->second = std::move(value);
            } else {
                dictionary.emplace_back(std::move(key), std::move(value));
            }
        }
        return dictionary;
    }

    // Big-endian UTF-16 to UTF-8; an unpaired surrogate is not text.
    static std::string fromUtf16(ByteView units) {
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
            out += utf8Of(unit);
        }
        return out;
    }

    static std::string checkedText(std::string text) {
        if (text.find('\0') != std::string::npos)
            throw PlatformError("property-list string holds a NUL character");
        if (!isUtf8(text)) throw PlatformError("property-list string is not valid UTF-8");
        return text;
    }

    ByteView bytes_;
    std::uint8_t offsetSize_ = 0;
    std::uint8_t referenceSize_ = 0;
    std::uint64_t objectCount_ = 0;
    std::uint64_t top_ = 0;
    std::uint64_t table_ = 0;
    std::uint64_t nodeBudget_ = 0;
};

// Bytes needed for an unsigned value: 1, 2, 4 or 8.
std::uint8_t widthFor(std::uint64_t value) {
    if (value <= 0xFF) return 1;
    if (value <= 0xFFFF) return 2;
    if (value <= 0xFFFFFFFF) return 4;
    return 8;
}

void appendUnsigned(Bytes& out, std::uint64_t value, std::uint8_t width) {
    for (int shift = (width - 1) * 8; shift >= 0; shift -= 8)
        out.push_back(static_cast<std::uint8_t>(value >> static_cast<unsigned>(shift)));
}

class Writer {
  public:
    Bytes write(const PlistValue& value) {
        referenceSize_ = widthFor(countObjects(value));
        objects_.assign(magic.begin(), magic.end());
        writeObject(value);
        const std::uint64_t table = objects_.size();
        const std::uint8_t offsetSize = widthFor(table);
        for (const std::uint64_t offset : offsets_) appendUnsigned(objects_, offset, offsetSize);
        objects_.insert(objects_.end(), 6, 0);
        objects_.push_back(offsetSize);
        objects_.push_back(referenceSize_);
        appendUnsigned(objects_, offsets_.size(), 8);
        appendUnsigned(objects_, 0, 8);  // the top object is written first
        appendUnsigned(objects_, table, 8);
        return std::move(objects_);
    }

  private:
    // Objects are numbered in the order they are written: a container, then its keys, then its
    // values, each depth first.
    static std::uint64_t countObjects(const PlistValue& value) {
        if (const auto* array = std::get_if<PlistArray>(&value.value)) {
            std::uint64_t count = 1;
            for (const auto& child : *array) count += countObjects(child);
            return count;
        }
        if (const auto* dictionary = std::get_if<PlistDictionary>(&value.value)) {
            std::uint64_t count = 1 + dictionary->size();
            for (const auto& entry : *dictionary) count += countObjects(entry.second);
            return count;
        }
        return 1;
    }

    void marker(std::uint8_t kind, std::uint64_t size) {
        if (size < sizeFollows) {
            objects_.push_back(static_cast<std::uint8_t>(kind << 4U | size));
            return;
        }
        objects_.push_back(static_cast<std::uint8_t>(kind << 4U | sizeFollows));
        const std::uint8_t width = widthFor(size);
        objects_.push_back(static_cast<std::uint8_t>(integerKind << 4U | std::countr_zero(width)));
        appendUnsigned(objects_, size, width);
    }

    // Writes the object and its descendants; returns its number.
    std::uint64_t writeObject(const PlistValue& value) {
        const std::uint64_t number = offsets_.size();
        offsets_.push_back(objects_.size());
        std::visit([&](const auto& content) { writeContent(content); }, value.value);
        return number;
    }

    std::uint64_t writeKey(const std::string& key) {
        const std::uint64_t number = offsets_.size();
        offsets_.push_back(objects_.size());
        writeContent(key);
        return number;
    }

    void writeContent(const std::int64_t& value) {
        // Non-negative values take the fewest bytes; negative ones are 8-byte two's complement.
        const auto bits = static_cast<std::uint64_t>(value);
        const std::uint8_t width = value < 0 ? 8 : widthFor(bits);
        objects_.push_back(static_cast<std::uint8_t>(integerKind << 4U | std::countr_zero(width)));
        appendUnsigned(objects_, bits, width);
    }

    void writeContent(const Bytes& data) {
        marker(dataKind, data.size());
        objects_.insert(objects_.end(), data.begin(), data.end());
    }

    void writeContent(const std::string& text) {
        if (text.find('\0') != std::string::npos || !isUtf8(text)) {
            throw PlatformError(
                "cannot write a property-list string that is not UTF-8 text without NUL "
                "characters");
        }
        if (std::all_of(text.begin(), text.end(),
                        [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
            marker(asciiKind, text.size());
            objects_.insert(objects_.end(), text.begin(), text.end());
            return;
        }
        const auto units = utf16Units(text);
        marker(utf16Kind, units.size());
        for (const std::uint16_t unit : units) appendUnsigned(objects_, unit, 2);
    }

    void writeContent(const PlistArray& array) {
        marker(arrayKind, array.size());
        const std::size_t references = objects_.size();
        objects_.resize(references + array.size() * referenceSize_);
        for (std::size_t i = 0; i < array.size(); ++i)
            setReference(references + i * referenceSize_, writeObject(array[i]));
    }

    void writeContent(const PlistDictionary& dictionary) {
        const std::size_t count = dictionary.size();
        marker(dictionaryKind, count);
        const std::size_t references = objects_.size();
        objects_.resize(references + 2 * count * referenceSize_);
        for (std::size_t i = 0; i < count; ++i) {
            if (dictionary[i].first.find('\0') != std::string::npos ||
                !isUtf8(dictionary[i].first)) {
                throw PlatformError(
                    "cannot write a property-list key that is not UTF-8 text without NUL "
                    "characters");
            }
            setReference(references + i * referenceSize_, writeKey(dictionary[i].first));
        }
        for (std::size_t i = 0; i < count; ++i) {
            setReference(references + (count + i) * referenceSize_,
                         writeObject(dictionary[i].second));
        }
    }

    void writeContent(const PlistUnsupported& value) {
        throw PlatformError("cannot write a property-list " + value.typeName + " value");
    }

    void setReference(std::size_t at, std::uint64_t object) {
        for (std::size_t i = 0; i < referenceSize_; ++i) {
            const auto shift = static_cast<unsigned>((referenceSize_ - 1 - i) * 8);
            objects_[at + i] = static_cast<std::uint8_t>(object >> shift);
        }
    }

    // UTF-16 code units of valid UTF-8 text.
    static std::vector<std::uint16_t> utf16Units(std::string_view text) {
        std::vector<std::uint16_t> units;
        for (std::size_t i = 0; i < text.size();) {
            const auto lead = static_cast<std::uint8_t>(text[i]);
            const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
            std::uint32_t codePoint =
                length == 1 ? lead : lead & (0xFFU >> static_cast<unsigned>(length + 1));
            for (std::size_t j = 1; j < length; ++j)
                codePoint = (codePoint << 6U) | (static_cast<std::uint8_t>(text[i + j]) & 0x3FU);
            if (codePoint >= 0x10000) {
                codePoint -= 0x10000;
                units.push_back(static_cast<std::uint16_t>(0xD800 + (codePoint >> 10U)));
                units.push_back(static_cast<std::uint16_t>(0xDC00 + (codePoint & 0x3FFU)));
            } else {
                units.push_back(static_cast<std::uint16_t>(codePoint));
            }
            i += length;
        }
        return units;
    }

    std::uint8_t referenceSize_ = 1;
    Bytes objects_;
    std::vector<std::uint64_t> offsets_;
};

}  // namespace

PlistValue fromBinary(ByteView bytes) {
    return Reader(bytes).read();
}

Bytes toBinary(const PlistValue& value) {
    return Writer().write(value);
}

}  // namespace keyloft::platform::plist
