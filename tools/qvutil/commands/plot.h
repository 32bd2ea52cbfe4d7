// qvutil plot: statistics over time as a picture.
#ifndef TOOLS_QVUTIL_COMMANDS_PLOT_H_
#define TOOLS_QVUTIL_COMMANDS_PLOT_H_

#include <string>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"
#include "qvutil/report/plots.h"

namespace quorvane::tool {

struct PlotOptions {
  PlotSource source;
  std::string output;  // its name ends in .svg, .png or .html
};

// Found: some lines are no reports.
Outcome plot(Console& console, const PlotOptions& options);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_COMMANDS_PLOT_H_
