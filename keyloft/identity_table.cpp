#include "keyloft/identity_table.hpp"

#include <algorithm>

#include "base/control_characters.hpp"
#include "platform/text/graphemes.hpp"

namespace keyloft {
namespace {

// Most cells are ASCII without CR, where every byte is one user-perceived character.
std::size_t displayLength(const std::string& cell) {
    const bool simple = std::ranges::all_of(
        cell, [](char c) { return static_cast<unsigned char>(c) < 0x80 && c != '\r'; });
    return simple ? cell.size() : platform::text::userPerceivedLength(cell);
}

}  // namespace

std::string renderTable(std::vector<std::vector<std::string>> rows) {
    // Control characters in names would act on the terminal or break the rows.
    for (auto& row : rows) {
        for (auto& cell : row) cell = escapeControlCharacters(cell);
    }
    std::vector<std::vector<std::size_t>> lengths;
    std::vector<std::size_t> widths;
    lengths.reserve(rows.size());
    for (const auto& row : rows) {
        auto& rowLengths = lengths.emplace_back();
        for (std::size_t column = 0; column < row.size(); ++column) {
            rowLengths.push_back(displayLength(row[column]));
            if (widths.size() <= column) widths.resize(column + 1, 0);
            widths[column] = std::max(widths[column], rowLengths.back());
        }
    }
    std::string out;
    for (std::size_t r = 0; r < rows.size(); ++r) {
        for (std::size_t column = 0; column < rows[r].size(); ++column) {
            out += rows[r][column];
            out.append(widths[column] - lengths[r][column] + 1, ' ');
        }
        out += '\n';
    }
    return out;
}

}  // namespace keyloft
