// qvutil report: everything on one page.
#ifndef TOOLS_QVUTIL_COMMANDS_REPORT_H_
#define TOOLS_QVUTIL_COMMANDS_REPORT_H_

#include <string>
#include <vector>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

struct ReportOptions {
  std::vector<std::string> roots;
  std::vector<std::string> stats;  // report files
  std::vector<std::string> traces;
  std::vector<std::string> logs;
  std::vector<std::string> gauges;  // patterns for metrics that are gauges
  std::string output;               // the page
};

// Found: a cache is damaged, or a line of a file.
Outcome report(Console& console, const ReportOptions& options);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_COMMANDS_REPORT_H_
