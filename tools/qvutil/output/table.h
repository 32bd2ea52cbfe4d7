// A table for people: columns as wide as their longest cell.
#ifndef TOOLS_QVUTIL_OUTPUT_TABLE_H_
#define TOOLS_QVUTIL_OUTPUT_TABLE_H_

#include <initializer_list>
#include <string>
#include <vector>

#include "qvutil/output/console.h"

namespace quorvane::tool {

// Keeps all rows until it is printed: for what is bounded, not for the entries of a cache.
class Table {
 public:
  struct Cell {
    Cell(std::string cell_text,
         Colour cell_colour = Colour::none)  // NOLINT: rows are lists of texts
        : text(std::move(cell_text)), colour(cell_colour) {}
    Cell(const char* cell_text) : text(cell_text) {}  // NOLINT: likewise
    std::string text;
    Colour colour = Colour::none;
  };
  enum class Align { left, right };
  struct Column {
    std::string heading;  // in capitals
    Align align = Align::left;
  };

  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  // One cell for each column.
  void row(std::vector<Cell> cells) { rows_.push_back(std::move(cells)); }
  bool empty() const { return rows_.empty(); }

  // The headings and the rows; no blanks at the ends of lines. Cells must have no control
  // characters (see shown()).
  void print(Console& console) const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<Cell>> rows_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_OUTPUT_TABLE_H_
