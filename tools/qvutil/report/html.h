// Pages that need nothing else: no other file, no script, no font.
#ifndef TOOLS_QVUTIL_REPORT_HTML_H_
#define TOOLS_QVUTIL_REPORT_HTML_H_

#include <string>
#include <string_view>
#include <vector>

#include "qvutil/report/series.h"

namespace quorvane::tool {

// A whole page. `body` is HTML. Readable on a telephone, and dark where that is preferred.
std::string html_page(std::string_view title, std::string_view body);

// The panels as pictures side by side, as many as there is room for. Runs gnuplot.
std::string html_of(const std::vector<Panel>& panels);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_HTML_H_
