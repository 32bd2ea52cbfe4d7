#include "qvutil/report/plots.h"

#include <utility>

#include "qvutil/output/text.h"
#include "qvutil/report/intervals.h"
#include "qvutil/report/report_file.h"

namespace quorvane::tool {
namespace {

void say_what_is_left_out(Console& console, const Series& series) {
  if (series.metrics_left_out() != 0) {
    console.err() << "qvutil: " << grouped(series.metrics_left_out())
                  << " metrics are left out: there is room for " << Series::kMostPanels
                  << "; choose them with --metric\n";
  }
  if (series.has_processes_left_out()) {
    console.err() << "qvutil: of each metric, the plot has the " << Series::kMostProcesses
                  << " processes that reported last\n";
  }
}

}  // namespace

Plots plots_of(Console& console, const PlotSource& source) {
  Plots plots;
  MetricTypes types(source.gauges);
  Intervals intervals(types, /*from_start=*/true);
  Series series(source.metrics);
  for (const std::string& file : source.files) {
    plots.damaged += read_reports(console, {.path = file}, [&](Report report, std::size_t size) {
      if (const auto interval = intervals.next(std::move(report), size)) {
        series.add(*interval);
      }
    });
  }
  say_what_is_left_out(console, series);
  plots.panels = series.panels(types);
  return plots;
}

}  // namespace quorvane::tool
