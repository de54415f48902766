#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "base/bytes.hpp"
#include "platform/plist/plist_writer.hpp"

// Property lists written from a tree, for tests that need layouts the tool never writes.
namespace keyloft::testing {

struct PlistValue;

using PlistArray = std::vector<PlistValue>;

// Entries in file order; a key occurs at most once.
using PlistDictionary = std::vector<std::pair<std::string, PlistValue>>;

// One node of a property list. Its special members are defined below the class, where the
// dictionary's entries are complete types.
struct PlistValue {
    using Content = std::variant<PlistDictionary, PlistArray, Bytes, std::string, std::int64_t>;

    PlistValue(
        Content content);  // NOLINT(google-explicit-constructor): values are written as {...}
    PlistValue(const PlistValue& other);
    PlistValue(PlistValue&& other) noexcept;
    PlistValue& operator=(const PlistValue& other);
    PlistValue& operator=(PlistValue&& other) noexcept;
    ~PlistValue();

    Content value;
};

inline PlistValue::PlistValue(Content content) : value(std::move(content)) {}
inline PlistValue::PlistValue(const PlistValue& other) = default;
inline PlistValue::PlistValue(PlistValue&& other) noexcept = default;
inline PlistValue& PlistValue::operator=(const PlistValue& other) = default;
inline PlistValue& PlistValue::operator=(PlistValue&& other) noexcept = default;
inline PlistValue::~PlistValue() = default;

inline bool operator==(const PlistValue& left, const PlistValue& right) {
    return left.value == right.value;
}

namespace detail {

inline std::uint64_t objectCount(const PlistValue& value) {
    std::uint64_t count = 1;
    if (const auto* array = std::get_if<PlistArray>(&value.value)) {
        for (const auto& child : *array) count += objectCount(child);
    } else if (const auto* dictionary = std::get_if<PlistDictionary>(&value.value)) {
        for (const auto& [key, child] : *dictionary) count += 1 + objectCount(child);
    }
    return count;
}

inline std::uint64_t write(platform::plist::PlistWriter& writer, const PlistValue& value) {
    return std::visit(
        [&](const auto& content) -> std::uint64_t {
            using T = std::decay_t<decltype(content)>;
            if constexpr (std::is_same_v<T, PlistDictionary>) {
                std::vector<std::pair<std::uint64_t, std::uint64_t>> entries;
                for (const auto& [key, child] : content)
                    entries.emplace_back(writer.text(key), write(writer, child));
                return writer.dictionary(entries);
            } else if constexpr (std::is_same_v<T, PlistArray>) {
                std::vector<std::uint64_t> elements;
                for (const auto& child : content) elements.push_back(write(writer, child));
                return writer.array(elements);
            } else if constexpr (std::is_same_v<T, Bytes>) {
                return writer.data(content);
            } else if constexpr (std::is_same_v<T, std::string>) {
                return writer.text(content);
            } else {
                return writer.integer(content);
            }
        },
        value.value);
}

}  // namespace detail

inline Bytes toBinary(const PlistValue& value) {
    platform::plist::PlistWriter writer(detail::objectCount(value));
    const auto top = detail::write(writer, value);
    return writer.finish(top);
}

}  // namespace keyloft::testing
