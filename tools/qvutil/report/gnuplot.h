// Pictures of series, by gnuplot.
#ifndef TOOLS_QVUTIL_REPORT_GNUPLOT_H_
#define TOOLS_QVUTIL_REPORT_GNUPLOT_H_

#include <string>
#include <string_view>
#include <vector>

#include "qvutil/report/series.h"

namespace quorvane::tool {

enum class PlotForm {
  svg,         // on white
  png,         // on white
  inline_svg,  // to stand in a page: no background
};

// What gnuplot is told. Texts can't end a string in it, run a command or mark text up.
std::string plot_script(const std::vector<Panel>& panels, PlotForm picture);

// Runs gnuplot, without a shell and without the user's settings, and returns what it prints.
// Throws Failure if it isn't installed or refuses.
std::string run_gnuplot(const std::string& script);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_GNUPLOT_H_
