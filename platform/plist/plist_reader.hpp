#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/bytes.hpp"

namespace keyloft::platform::plist {

// The kinds of object a binary property list holds.
enum class PlistKind {
    dictionary,
    array,
    data,
    string,
    integer,
    boolean,
    real,
    date,
    uid,
    unknown
};

std::string_view kindName(PlistKind kind);

// A binary property list ("bplist00") read in place: objects are reached by number from the top
// one, and nothing is decoded until it is asked for, so that reading one record of a large list
// costs that record. The bytes must outlive the reader. Every accessor throws PlatformError
// "data is not a binary property list" for bytes that do not hold what the trailer promises, and
// its own PlatformError for text with a NUL character or that is not valid UTF-8. A reader is for
// one thread at a time.
class PlistReader {
  public:
    using Object = std::uint64_t;

    explicit PlistReader(ByteView bytes);

    Object top() const { return top_; }
    PlistKind kind(Object object) const;

    // Each for an object of its kind only.
    ByteView data(Object object) const;
    std::string text(Object object) const;
    // 8-byte integers are signed, shorter ones unsigned; 16-byte ones give their low 64 bits.
    std::int64_t integer(Object object) const;
    std::vector<Object> elements(Object array) const;
    std::size_t size(Object container) const;
    // The value of the key in a dictionary; a key written twice gives its later value.
    std::optional<Object> member(Object dictionary, std::string_view key) const;
    // The same for several keys at once, in one pass over the dictionary.
    // Found in place of nothing, so that reading a record allocates nothing.
    void members(Object dictionary, std::span<const std::string_view> keys,
                 std::span<std::optional<Object>> found) const;

    // Where the list keeps its objects, for adding objects in the room it left (PlistExtension).
    struct Layout {
        std::uint8_t offsetSize;
        std::uint8_t referenceSize;
        std::uint64_t objectCount;
        std::uint64_t table;    // where the offset table starts
        std::uint64_t trailer;  // where the trailer starts
    };
    Layout layout() const;
    // Where an object starts, and where its bytes end.
    std::uint64_t offsetOf(Object object) const;
    std::uint64_t endOf(Object object) const;
    // An array whose count is a separate integer, which can be rewritten in place as it grows:
    // where that count is, how wide, and where the elements start. Nothing for other arrays.
    struct GrowableArray {
        std::uint64_t countAt;
        std::uint8_t countWidth;
        std::uint64_t count;
        std::uint64_t elementsAt;
    };
    std::optional<GrowableArray> growableArray(Object array) const;

  private:
    struct Contents {
        std::uint64_t size;
        std::uint64_t position;  // where the contents start, past the marker and the size
    };
    Contents contentsOf(Object object, std::uint64_t unit) const;
    Contents contentsAt(std::uint64_t offset, std::uint64_t unit) const;
    Object reference(std::uint64_t position, std::uint64_t index) const;
    // A dictionary key's text; one in UTF-16 is converted into the buffer.
    std::string_view keyName(Object key, std::string& wide) const;

    ByteView bytes_;
    std::uint8_t offsetSize_ = 0;
    std::uint8_t referenceSize_ = 0;
    std::uint64_t objectCount_ = 0;
    Object top_ = 0;
    std::uint64_t table_ = 0;
    // Dictionaries of many records share a few key objects: those read last, by object number.
    struct Key {
        Object object = ~Object{0};
        std::string_view name;
    };
    mutable std::array<Key, 16> keys_{};
};

}  // namespace keyloft::platform::plist
