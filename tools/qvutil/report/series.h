// Metrics over time, as they are plotted.
#ifndef TOOLS_QVUTIL_REPORT_SERIES_H_
#define TOOLS_QVUTIL_REPORT_SERIES_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "qvutil/report/interval.h"
#include "qvutil/report/metric_types.h"

namespace quorvane::tool {

// A value that holds for an interval.
struct Point {
  std::int64_t from = 0;  // seconds since 1970
  std::int64_t to = 0;
  double value = 0;
};

// The points of one line. Neighbours of many points are put together, so that their number is
// bounded: the higher value stays, so that no spike is lost.
class Points {
 public:
  static constexpr std::size_t kMost = 1024;

  void add(Point point);
  const std::vector<Point>& all() const { return points_; }

 private:
  std::vector<Point> points_;
};

struct PlotLine {
  std::string title;
  std::vector<Point> points;
};

struct Panel {
  std::string metric;  // its path
  MetricType type = MetricType::counter;
  std::vector<PlotLine> lines;
};

// Collects intervals: rates of counters, values of gauges, percentiles of histograms. With several
// processes, there is room for one percentile of each.
class Series {
 public:
  static constexpr std::size_t kMostPanels = 48;
  static constexpr std::size_t kMostProcesses = 8;  // in a panel: those that reported last

  // Only metrics that match one of the patterns; all of them without patterns.
  explicit Series(std::vector<std::string> patterns) : patterns_(std::move(patterns)) {}

  void add(const Interval& interval);

  // By path. A counter that never counted has no panel.
  std::vector<Panel> panels(const MetricTypes& types) const;

  std::size_t metrics_left_out() const { return metrics_left_out_.size(); }
  bool has_processes_left_out() const { return has_processes_left_out_; }

 private:
  struct OfProcess {
    std::int64_t last_time = 0;
    Points rates;  // whole numbers only
    Points values;
    Points p50;
    Points p90;
    Points p99;
  };
  using OfMetric = std::map<ProcessKey, OfProcess>;

  bool is_wanted(const std::string& path) const;
  static void add_lines(Panel& panel, const ProcessKey& process, const OfProcess& lines,
                        const MetricTypes& types, bool is_only_one);
  OfProcess& lines_of(OfMetric& metric, const ProcessKey& process);

  std::vector<std::string> patterns_;
  std::map<std::string, OfMetric> metrics_;
  std::set<std::string> metrics_left_out_;
  bool has_processes_left_out_ = false;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_SERIES_H_
