#include "qvutil/report/html_table.h"

#include <cstddef>
#include <string>
#include <vector>

#include "qvutil/output/markup.h"
#include "qvutil/report/html.h"

namespace quorvane::tool {

void HtmlTable::row(const std::vector<Cell>& cells) {
  rows_ += "<tr>";
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const Cell& cell = cells[i];
    rows_ += "<td data-name=\"" + markup_text(headings_[i]) + "\"";
    rows_ += cell.class_name.empty() ? ">" : " class=\"" + cell.class_name + "\">";
    rows_ += "<span>" + markup_text(cell.text) + "</span></td>";
  }
  rows_ += "</tr>\n";
}

std::string HtmlTable::html() const {
  std::string html = "<table class=\"cards\">\n<thead><tr>";
  for (const std::string& heading : headings_) {
    html += "<th>" + markup_text(heading) + "</th>";
  }
  return html + "</tr></thead>\n<tbody>\n" + rows_ + "</tbody>\n</table>\n";
}

}  // namespace quorvane::tool
