// The intervals between the reports of all processes, one after the other.
#ifndef TOOLS_QVUTIL_REPORT_INTERVALS_H_
#define TOOLS_QVUTIL_REPORT_INTERVALS_H_

#include <cstddef>
#include <optional>

#include "qvutil/report/interval.h"
#include "qvutil/report/metric_types.h"
#include "qvutil/report/processes.h"

namespace quorvane::tool {

class Intervals {
 public:
  // `from_start`: the first interval of a process is that from its start to its first report.
  Intervals(MetricTypes& types, bool from_start) : types_(types), from_start_(from_start) {}

  // The interval that ends with this report. Nothing if it is the first one of its process, or
  // in the same second as the one before: what it adds is in the next interval then.
  std::optional<Interval> next(Report report, std::size_t size);

 private:
  MetricTypes& types_;
  bool from_start_;
  Processes begins_;  // the reports that the next intervals begin with
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_INTERVALS_H_
