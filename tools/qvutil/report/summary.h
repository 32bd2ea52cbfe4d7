// A metric in a few numbers.
#ifndef TOOLS_QVUTIL_REPORT_SUMMARY_H_
#define TOOLS_QVUTIL_REPORT_SUMMARY_H_

#include <optional>
#include <string>

#include "qvutil/output/json.h"
#include "qvutil/report/metric_types.h"

namespace quorvane::tool {

// `value` of a counter or a gauge; `count`, `sum`, `min`, `mean`, `p50`, `p90`, `p99` and `max`
// of a histogram. What is unknown is null. With `seconds`, the value is what was added in so many
// seconds: counters and histograms have `per_second`, and counters no `value`.
Json summary(MetricType type, const Value& value, std::optional<double> seconds = std::nullopt);

// A number of a summary as text; empty for null. `digits` are the significant ones of a number
// that isn't whole; 0: as many as it takes to read it back.
std::string number_text(const Json& number, int digits = 0);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_SUMMARY_H_
