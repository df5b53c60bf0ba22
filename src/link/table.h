// Small constant tables of rows that have a `word`, the text by which a message names them.
#pragma once

#include <algorithm>
#include <array>
#include <string_view>

namespace kestrix {

/// The row of that word; the first of the table for a word that it lacks.
template <class Row, size_t N>
const Row &row_or_first(const std::array<Row, N> &table, std::string_view word) {
  const auto row = std::find_if(table.begin(), table.end(),
                                [&](const Row &candidate) { return candidate.word == word; });
  return row == table.end() ? table.front() : *row;
}

}  // namespace kestrix
