#include "qvutil/report/series.h"

#include <fnmatch.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

std::string title_of(const ProcessKey& process) {
  const std::string pid = std::to_string(process.pid);
  return process.program.empty() ? pid : process.program + " " + pid;
}

bool has_counted(const std::vector<PlotLine>& lines) {
  return std::any_of(lines.begin(), lines.end(), [](const PlotLine& line) {
    return std::any_of(line.points.begin(), line.points.end(),
                       [](const Point& point) { return point.value != 0; });
  });
}

// Puts each pair of neighbours together.
void halve(std::vector<Point>& points) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < points.size(); i += 2) {
    Point point = points[i];
    if (i + 1 < points.size()) {
      point.to = points[i + 1].to;
      point.value = std::max(point.value, points[i + 1].value);
    }
    points[kept++] = point;
  }
  points.resize(kept);
}

}  // namespace

void Points::add(Point point) {
  if (!std::isfinite(point.value)) {
    return;
  }
  if (points_.size() == kMost) {
    halve(points_);
  }
  points_.push_back(point);
}

bool Series::is_wanted(const std::string& path) const {
  return patterns_.empty() ||
         std::any_of(patterns_.begin(), patterns_.end(), [&](const std::string& pattern) {
           return fnmatch(pattern.c_str(), path.c_str(), 0) == 0;
         });
}

void Series::add(const Interval& interval) {
  for (const auto& [path, added] : interval.added) {
    if (!is_wanted(path)) {
      continue;
    }
    if (metrics_.size() == kMostPanels && metrics_.count(path) == 0) {
      metrics_left_out_.insert(path);
      continue;
    }
    OfProcess& lines = lines_of(metrics_[path], interval.process);
    lines.last_time = interval.to;
    const auto point = [&](double value) { return Point{interval.from, interval.to, value}; };
    if (const auto* histogram = std::get_if<Histogram>(&added)) {
      lines.p50.add(point(histogram->percentile(0.5)));
      lines.p90.add(point(histogram->percentile(0.9)));
      lines.p99.add(point(histogram->percentile(0.99)));
    } else if (const auto* count = std::get_if<std::int64_t>(&added)) {
      lines.rates.add(point(static_cast<double>(*count) / interval.seconds()));
      if (const auto* whole = std::get_if<std::int64_t>(&interval.values.at(path))) {
        lines.values.add(point(static_cast<double>(*whole)));
      }
    } else if (const auto* real = std::get_if<double>(&added)) {
      lines.values.add(point(*real));
    }
  }
}

Series::OfProcess& Series::lines_of(OfMetric& metric, const ProcessKey& process) {
  if (metric.size() == kMostProcesses && metric.count(process) == 0) {
    const auto oldest = std::min_element(
        metric.begin(), metric.end(),
        [](const auto& a, const auto& b) { return a.second.last_time < b.second.last_time; });
    metric.erase(oldest);
    has_processes_left_out_ = true;
  }
  return metric[process];
}

void Series::add_lines(Panel& panel, const ProcessKey& process, const OfProcess& lines,
                       const MetricTypes& types, bool is_only_one) {
  const std::string title = title_of(process);
  if (!lines.rates.all().empty() || !lines.values.all().empty()) {
    const bool is_whole = !lines.rates.all().empty();
    panel.type = is_whole ? types.of(panel.metric, Value(std::int64_t{0})) : MetricType::gauge;
    const bool is_counter = panel.type == MetricType::counter;
    panel.lines.push_back({title, (is_counter ? lines.rates : lines.values).all()});
  } else if (!lines.p99.all().empty()) {
    panel.type = MetricType::histogram;
    if (is_only_one) {
      panel.lines.push_back({"p50, " + title, lines.p50.all()});
      panel.lines.push_back({"p90, " + title, lines.p90.all()});
    }
    panel.lines.push_back({"p99, " + title, lines.p99.all()});
  }
}

std::vector<Panel> Series::panels(const MetricTypes& types) const {
  std::vector<Panel> panels;
  for (const auto& [path, processes] : metrics_) {
    Panel panel{path, MetricType::gauge, {}};
    for (const auto& [process, lines] : processes) {
      add_lines(panel, process, lines, types, processes.size() == 1);
    }
    const bool is_worth_it = panel.type != MetricType::counter || has_counted(panel.lines);
    if (is_worth_it && !panel.lines.empty()) {
      panels.push_back(std::move(panel));
    }
  }
  return panels;
}

}  // namespace quorvane::tool
