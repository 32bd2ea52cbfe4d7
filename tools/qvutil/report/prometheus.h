// The text that Prometheus reads.
#ifndef TOOLS_QVUTIL_REPORT_PROMETHEUS_H_
#define TOOLS_QVUTIL_REPORT_PROMETHEUS_H_

#include <ostream>

#include "qvutil/report/metric_types.h"
#include "qvutil/report/processes.h"

namespace quorvane::tool {

// The last values of all processes, with the labels pid and program; start, too, if two processes
// have both in common. A gauge without a finite value, and a sum that has overflowed, are NaN.
void write_prometheus(std::ostream& out, const Processes& processes, const MetricTypes& types);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_PROMETHEUS_H_
