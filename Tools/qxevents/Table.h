#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Output.h"
#include "Text.h"

namespace qxevents {

/// A column of a table. On a terminal that is too narrow, columns are cut in the order of `sacrifice`, each
/// down to `minimumWidth`.
struct Column {
  std::string header;
  std::size_t minimumWidth = 0;  // 0: never cut
  int sacrifice = 0;             // the lowest is cut first
  Cut cut = Cut::end;
  bool alignRight = false;
};

/// Aligned text columns. One thread.
class Table {
 public:
  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  /// `cells`: one for each column, of any text; shown through printable(). `color`: an SGR parameter ("31")
  /// for the whole row, used on a coloured print only.
  void addRow(std::vector<std::string> cells, std::string color = {});

  /// Prints header and rows, no line wider than `width` columns (0: no limit). Nothing for an empty table.
  void print(Output& output, std::size_t width, bool colored) const;

 private:
  struct Row {
    std::vector<std::string> cells;
    std::string color;
  };

  std::vector<std::size_t> widths(std::size_t limit) const;
  std::string line(const std::vector<std::string>& cells, const std::vector<std::size_t>& widths,
                   std::size_t limit) const;

  std::vector<Column> columns_;
  std::vector<Row> rows_;
};

}  // namespace qxevents
