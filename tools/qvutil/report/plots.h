// The panels of report files.
#ifndef TOOLS_QVUTIL_REPORT_PLOTS_H_
#define TOOLS_QVUTIL_REPORT_PLOTS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "qvutil/output/console.h"
#include "qvutil/report/series.h"

namespace quorvane::tool {

struct PlotSource {
  std::vector<std::string> files;
  std::vector<std::string> metrics;  // patterns; empty: all metrics
  std::vector<std::string> gauges;   // patterns for metrics that are gauges
};

struct Plots {
  std::vector<Panel> panels;
  std::uint64_t damaged = 0;  // lines
};

// Reads the files. Says on standard error what there is no room for. Throws Failure if one can't
// be read.
Plots plots_of(Console& console, const PlotSource& source);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_PLOTS_H_
