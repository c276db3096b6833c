#ifndef TALP_TOOLS_CARDSIM_TABLE_H_
#define TALP_TOOLS_CARDSIM_TABLE_H_

#include <string>

// The row of a table with this name; null if there is none.
template <typename ROW, size_t COUNT>
const ROW* FindRow(const ROW (&rows)[COUNT], const std::string& name) {
  for (const ROW& row : rows) {
    if (name == row.name) return &row;
  }
  return nullptr;
}

// "dout, din, ...".
template <typename ROW, size_t COUNT>
std::string RowNames(const ROW (&rows)[COUNT]) {
  std::string names;
  for (const ROW& row : rows) names += (names.empty() ? "" : ", ") + std::string(row.name);
  return names;
}

#endif  // TALP_TOOLS_CARDSIM_TABLE_H_
