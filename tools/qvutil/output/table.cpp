#include "qvutil/output/table.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

constexpr std::string_view kGap = "  ";

}  // namespace

void Table::print(Console& console) const {
  std::vector<std::size_t> widths;
  for (const Column& column : columns_) {
    widths.push_back(width_of(column.heading));
  }
  for (const auto& cells : rows_) {
    for (std::size_t i = 0; i < cells.size(); ++i) {
      widths[i] = std::max(widths[i], width_of(cells[i].text));
    }
  }
  const auto print_row = [&](const std::vector<Cell>& cells) {
    std::string line;
    std::string blanks;  // before the next cell that has a text
    for (std::size_t i = 0; i < cells.size(); ++i) {
      const std::string padding(widths[i] - width_of(cells[i].text), ' ');
      const bool right = columns_[i].align == Align::right;
      blanks += right ? padding : "";
      if (!cells[i].text.empty()) {
        line += blanks + console.paint(cells[i].colour, cells[i].text);
        blanks.clear();
      }
      blanks += right ? "" : padding;
      blanks += kGap;
    }
    console.out() << line << '\n';
  };
  std::vector<Cell> headings;
  for (const Column& column : columns_) {
    headings.emplace_back(column.heading, Colour::bold);
  }
  print_row(headings);
  for (const auto& cells : rows_) {
    print_row(cells);
  }
}

}  // namespace quorvane::tool
