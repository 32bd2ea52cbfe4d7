// Which numbers are counters.
#ifndef TOOLS_QVUTIL_REPORT_METRIC_TYPES_H_
#define TOOLS_QVUTIL_REPORT_METRIC_TYPES_H_

#include <set>
#include <string>
#include <vector>

#include "qvutil/report/report.h"

namespace quorvane::tool {

enum class MetricType { counter, gauge, histogram };

const char* name_of(MetricType type);  // "counter", "gauge", "histogram"

// Reports don't say whether a whole number is a counter or a gauge. It is a gauge if it ever has
// been negative, has gone down or was no whole number, unless it was in the values that a child
// inherited: these are no gauges. It is a gauge, too, if its path matches one of the patterns.
class MetricTypes {
 public:
  // `gauges` are patterns as the shell's, whose * also stands for slashes. The gauges of caches
  // on indexed stores are known.
  explicit MetricTypes(std::vector<std::string> gauges = {});

  // `before`: the last report of the same process, or null.
  void see(const Report& report, const Report* before);

  MetricType of(const std::string& path, const Value& value) const;

 private:
  bool matches(const std::string& path) const;

  std::vector<std::string> patterns_;
  std::set<std::string> gauges_;
  std::set<std::string> counters_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_METRIC_TYPES_H_
