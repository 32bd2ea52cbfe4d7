// A table of a page.
#ifndef TOOLS_QVUTIL_REPORT_HTML_TABLE_H_
#define TOOLS_QVUTIL_REPORT_HTML_TABLE_H_

#include <string>
#include <utility>
#include <vector>

namespace quorvane::tool {

// On a narrow screen each row becomes a list of its columns' names and values.
class HtmlTable {
 public:
  struct Cell {
    std::string text;        // any bytes
    std::string class_name;  // "number", "short", "good", "bad" or nothing
  };

  explicit HtmlTable(std::vector<std::string> headings) : headings_(std::move(headings)) {}

  // One cell for each heading.
  void row(const std::vector<Cell>& cells);
  bool empty() const { return rows_.empty(); }
  std::string html() const;

 private:
  std::vector<std::string> headings_;
  std::string rows_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_HTML_TABLE_H_
