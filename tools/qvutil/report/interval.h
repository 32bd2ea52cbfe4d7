// What happened between two reports of a process.
#ifndef TOOLS_QVUTIL_REPORT_INTERVAL_H_
#define TOOLS_QVUTIL_REPORT_INTERVAL_H_

#include <cstdint>
#include <optional>

#include "qvutil/report/report.h"

namespace quorvane::tool {

struct Interval {
  ProcessKey process;
  std::int64_t from = 0;  // seconds since 1970
  std::int64_t to = 0;    // later than `from`
  Metrics added;          // counts and samples; of a gauge it means nothing
  Metrics values;         // at the end, of what is no histogram

  double seconds() const { return static_cast<double>(to - from); }
};

// Whether the process has lost samples in between: it has begun anew, with the same program.
bool has_begun_anew(const Report& earlier, const Report& later);

// Nothing if no second has passed, or if the process has begun anew.
std::optional<Interval> interval_between(const Report& earlier, const Report& later);

// From the start of the process. Nothing if that is unknown, or the report has its parent's counts.
std::optional<Interval> interval_to(const Report& first);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_INTERVAL_H_
