// One statistics report: what a process had counted at a time.
#ifndef TOOLS_QVUTIL_REPORT_REPORT_H_
#define TOOLS_QVUTIL_REPORT_REPORT_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <variant>

#include "qvutil/report/histogram.h"

namespace quorvane::tool {

// The value of a metric: nothing for a gauge that has no finite value, a whole number for a
// counter or a gauge, any other number for a gauge, or a histogram.
using Value = std::variant<std::monostate, std::int64_t, double, Histogram>;

// By path: the module's, "/", and the metric's name. Any bytes.
using Metrics = std::map<std::string, Value>;

// What tells processes apart. A program that a process starts by exec counts from nothing, so
// it is another one here.
struct ProcessKey {
  std::int64_t pid = 0;
  std::optional<std::int64_t> start;  // seconds since 1970
  std::string program;                // empty if unknown

  bool operator<(const ProcessKey& other) const {
    return std::tie(pid, start, program) < std::tie(other.pid, other.start, other.program);
  }
};

struct Report {
  std::int64_t time = 0;  // seconds since 1970
  ProcessKey process;
  Metrics metrics;                  // what the process has counted itself
  std::set<std::string> counted;    // paths of metrics that can't be gauges
  bool has_parents_counts = false;  // what it started with is unknown and still in `metrics`
};

// The report that a line, without its newline, is. Throws Failure if it is none, with the reason.
Report report_of_line(std::string_view line);

// The lines of this size or more are no reports. A line with a histogram of all doubles takes
// half of it.
constexpr std::size_t kLongestLine = 16'000'000;

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_REPORT_H_
