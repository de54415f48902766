#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "base/bytes.hpp"

namespace keyloft::platform::plist {

struct PlistValue;

using PlistArray = std::vector<PlistValue>;

// Entries in file order; a key occurs at most once.
using PlistDictionary = std::vector<std::pair<std::string, PlistValue>>;

// A value of a type this tool never stores (boolean, real, date, uid); kept so that readers can
// report which type they met instead of a missing value.
struct PlistUnsupported {
    std::string typeName;

    bool operator==(const PlistUnsupported&) const = default;
};

// One node of a property list. Its special members are defined below the class, where the
// dictionary's entries are complete types.
struct PlistValue {
    using Content = std::variant<PlistDictionary, PlistArray, Bytes, std::string, std::int64_t,
                                 PlistUnsupported>;

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

// The value stored under the key, or nothing.
inline const PlistValue* findValue(const PlistDictionary& dictionary, std::string_view key) {
    for (const auto& [entryKey, entryValue] : dictionary) {
        if (entryKey == key) return &entryValue;
    }
    return nullptr;
}

}  // namespace keyloft::platform::plist
