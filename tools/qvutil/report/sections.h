// The sections of a report page.
#ifndef TOOLS_QVUTIL_REPORT_SECTIONS_H_
#define TOOLS_QVUTIL_REPORT_SECTIONS_H_

#include <string>
#include <vector>

#include "qvutil/output/console.h"

namespace quorvane::tool {

struct Section {
  std::string html;
  bool has_damage = false;
};

// Each throws Failure if a file or a directory can't be read.
Section caches_section(Console& console, const std::string& root);
Section statistics_section(Console& console, const std::vector<std::string>& files,
                           const std::vector<std::string>& gauges);
Section timeline_section(Console& console, const std::vector<std::string>& traces);
Section errors_section(Console& console, const std::vector<std::string>& logs);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_SECTIONS_H_
