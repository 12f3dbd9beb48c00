#include "Table.h"

#include <algorithm>
#include <numeric>

#include <fmt/format.h>

namespace qxevents {
namespace {

constexpr std::size_t kGap = 2;  // blanks between columns

std::string padded(const std::string& text, std::size_t width, bool alignRight) {
  const std::string blanks(width - std::min(width, displayWidth(text)), ' ');
  return alignRight ? blanks + text : text + blanks;
}

}  // namespace

void Table::addRow(std::vector<std::string> cells, std::string color) {
  for (auto& cell : cells)
    cell = printable(cell);
  rows_.push_back({std::move(cells), std::move(color)});
}

std::vector<std::size_t> Table::widths(std::size_t limit) const {
  std::vector<std::size_t> widths;
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    std::size_t width = displayWidth(columns_[i].header);
    for (const auto& row : rows_)
      width = std::max(width, displayWidth(row.cells[i]));
    widths.push_back(width);
  }
  if (limit == 0) return widths;

  std::vector<std::size_t> order(columns_.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(),
                   [this](auto a, auto b) { return columns_[a].sacrifice < columns_[b].sacrifice; });
  std::size_t total = std::accumulate(widths.begin(), widths.end(), kGap * (widths.size() - 1));
  for (const std::size_t i : order) {
    if (total <= limit || columns_[i].minimumWidth == 0) continue;
    const std::size_t spare = widths[i] - std::min(widths[i], columns_[i].minimumWidth);
    const std::size_t taken = std::min(spare, total - limit);
    widths[i] -= taken;
    total -= taken;
  }
  return widths;
}

std::string Table::line(const std::vector<std::string>& cells, const std::vector<std::size_t>& widths,
                        std::size_t limit) const {
  std::string text;
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    if (i != 0) text.append(kGap, ' ');
    text += padded(fitted(cells[i], widths[i], columns_[i].cut), widths[i], columns_[i].alignRight);
  }
  text.erase(text.find_last_not_of(' ') + 1);
  return limit == 0 ? text : fitted(text, limit);
}

void Table::print(Output& output, std::size_t width, bool colored) const {
  if (rows_.empty()) return;
  const auto widths = this->widths(width);
  std::vector<std::string> headers;
  for (const auto& column : columns_)
    headers.push_back(column.header);
  for (std::size_t i = 0; i < headers.size(); ++i)
    headers[i] = fitted(headers[i], widths[i]);
  const auto header = line(headers, widths, width);
  output.write(colored ? fmt::format("\x1b[1m{}\x1b[0m\n", header) : header + "\n");
  for (const auto& row : rows_) {
    if (output.isBroken()) return;
    const auto text = line(row.cells, widths, width);
    output.write(colored && !row.color.empty() ? fmt::format("\x1b[{}m{}\x1b[0m\n", row.color, text)
                                               : text + "\n");
  }
}

}  // namespace qxevents
