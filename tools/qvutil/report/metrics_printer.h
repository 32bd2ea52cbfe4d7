// Metrics as tables, as JSON or as CSV.
#ifndef TOOLS_QVUTIL_REPORT_METRICS_PRINTER_H_
#define TOOLS_QVUTIL_REPORT_METRICS_PRINTER_H_

#include <string>

#include "qvutil/output/console.h"
#include "qvutil/report/interval.h"
#include "qvutil/report/metric_types.h"

namespace quorvane::tool {

class MetricsPrinter {
 public:
  virtual ~MetricsPrinter() = default;
  virtual void report(const Report& report, const MetricTypes& types) = 0;
  virtual void interval(const Interval& interval, const MetricTypes& types) = 0;
};

// A table for each report and each interval; with --json, one object a metric.
class TablePrinter : public MetricsPrinter {
 public:
  explicit TablePrinter(Console& console) : console_(console) {}
  void report(const Report& report, const MetricTypes& types) override;
  void interval(const Interval& interval, const MetricTypes& types) override;

 private:
  void print_heading(const ProcessKey& process, const std::string& when);

  Console& console_;
  bool is_first_ = true;
};

// One row a value: time, pid, program, metric, value. A histogram has several values.
class CsvPrinter : public MetricsPrinter {
 public:
  explicit CsvPrinter(Console& console);
  void report(const Report& report, const MetricTypes& types) override;
  void interval(const Interval& interval, const MetricTypes& types) override;

 private:
  Console& console_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_METRICS_PRINTER_H_
