// Names as Prometheus wants them.
#ifndef TOOLS_QVUTIL_REPORT_PROMETHEUS_NAME_H_
#define TOOLS_QVUTIL_REPORT_PROMETHEUS_NAME_H_

#include <string>
#include <string_view>

#include "qvutil/report/metric_types.h"

namespace quorvane::tool {

struct PrometheusName {
  std::string name;
  double scale = 1;  // what values are multiplied with: 1e-6 for a metric in microseconds
};

// "qv_" and the path in snake case; that of a counter ends in _total. Times whose name ends in
// their unit are in seconds: disk/wait_us is qv_disk_wait_seconds. Different paths can have the
// same name.
PrometheusName prometheus_name(const std::string& path, MetricType type);

// The value of a label, in its quotes.
std::string prometheus_label(std::string_view value);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_PROMETHEUS_NAME_H_
