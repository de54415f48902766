#pragma once

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <utility>

namespace keyloft {

// A vocabulary: each value of an enumeration with the word typed for it.
template <class Enum, std::size_t N>
using WordTable = std::array<std::pair<Enum, std::string_view>, N>;

template <class Enum, std::size_t N>
constexpr std::string_view wordIn(const WordTable<Enum, N>& table, Enum value) {
    const auto* entry = std::find_if(table.begin(), table.end(), [&](const auto& candidate) {
        return candidate.first == value;
    });
    return entry->second;
}

// Vocabulary words are matched exactly and case-sensitively.
template <class Enum, std::size_t N>
constexpr std::optional<Enum> valueIn(const WordTable<Enum, N>& table, std::string_view word) {
    const auto* entry = std::find_if(table.begin(), table.end(), [&](const auto& candidate) {
        return candidate.second == word;
    });
    if (entry == table.end()) return std::nullopt;
    return entry->first;
}

}  // namespace keyloft
