#include "qvutil/report/metrics_printer.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "qvutil/output/json.h"
#include "qvutil/output/table.h"
#include "qvutil/output/text.h"
#include "qvutil/report/summary.h"

namespace quorvane::tool {
namespace {

constexpr int kDigits = 6;

// What is worth knowing of an interval: the values of gauges, what was added of all others.
Metrics of_interest(const Interval& interval, const MetricTypes& types) {
  Metrics metrics = interval.added;
  for (const auto& [path, value] : interval.values) {
    if (types.of(path, value) == MetricType::gauge) {
      metrics[path] = value;
    }
  }
  return metrics;
}

// Calls `each` with the path, the type and the summary of each metric.
template <typename Each>
void for_each_summary(const Metrics& metrics, const MetricTypes& types,
                      std::optional<double> seconds, Each each) {
  for (const auto& [path, value] : metrics) {
    const MetricType type = types.of(path, value);
    each(path, type, summary(type, value, seconds));
  }
}

std::string cell(const Json& summary, const char* name) {
  const auto found = summary.find(name);
  return found == summary.end() ? "" : number_text(*found, kDigits);
}

void print_table(Console& console, const Metrics& metrics, const MetricTypes& types,
                 std::optional<double> seconds) {
  constexpr auto kRight = Table::Align::right;
  std::vector<Table::Column> columns{{"METRIC"}, {"TYPE"}};
  if (seconds) {
    columns.push_back({"A SECOND", kRight});
  }
  for (const char* heading : {"VALUE", "COUNT", "MEAN", "P50", "P90", "P99", "MAX"}) {
    columns.push_back({heading, kRight});
  }
  Table table(std::move(columns));
  for_each_summary(
      metrics, types, seconds, [&](const std::string& path, MetricType type, const Json& summary) {
        std::vector<Table::Cell> cells{shown(path), name_of(type)};
        if (seconds) {
          cells.emplace_back(cell(summary, "per_second"));
        }
        for (const char* name : {"value", "count", "mean", "p50", "p90", "p99", "max"}) {
          cells.emplace_back(cell(summary, name));
        }
        table.row(std::move(cells));
      });
  table.print(console);
}

// `head` are the members that all metrics have.
void print_objects(Console& console, const Json& head, const Metrics& metrics,
                   const MetricTypes& types, std::optional<double> seconds) {
  for_each_summary(metrics, types, seconds,
                   [&](const std::string& path, MetricType type, const Json& summary) {
                     Json object = head;
                     object["metric"] = json_of_bytes(path);
                     object["type"] = name_of(type);
                     object.update(summary);
                     print_json(console, object);
                   });
}

Json json_of(const ProcessKey& process) {
  return Json{{"pid", process.pid},
              {"program", process.program.empty() ? Json() : json_of_bytes(process.program)},
              {"start", process.start ? Json(*process.start) : Json()}};
}

// In quotes if it has to be.
std::string csv_text(const std::string& bytes) {
  std::string text = shown(bytes);
  if (text.find_first_of(",\"") == std::string::npos) {
    return text;
  }
  std::string quoted = "\"";
  for (const char c : text) {
    quoted += c == '"' ? "\"\"" : std::string(1, c);
  }
  return quoted + "\"";
}

void print_rows(Console& console, std::int64_t time, const ProcessKey& process,
                const Metrics& metrics, const MetricTypes& types, std::optional<double> seconds) {
  const std::string head = std::to_string(time) + ',' + std::to_string(process.pid) + ',' +
                           csv_text(process.program) + ',';
  for_each_summary(
      metrics, types, seconds, [&](const std::string& path, MetricType, const Json& summary) {
        for (const auto& [name, number] : summary.items()) {
          std::string metric = path;
          if (summary.size() != 1) {
            metric.append(".").append(name);
          }
          console.out() << head << csv_text(metric) << ',' << number_text(number) << '\n';
        }
      });
}

}  // namespace

void TablePrinter::report(const Report& report, const MetricTypes& types) {
  if (console_.json()) {
    Json head = json_of(report.process);
    head["time"] = report.time;
    head["has_parents_counts"] = report.has_parents_counts;
    print_objects(console_, head, report.metrics, types, std::nullopt);
    return;
  }
  print_heading(report.process,
                time_text(report.time) +
                    (report.has_parents_counts ? ", with unknown counts of its parent" : ""));
  print_table(console_, report.metrics, types, std::nullopt);
}

void TablePrinter::interval(const Interval& interval, const MetricTypes& types) {
  if (console_.json()) {
    Json head = json_of(interval.process);
    head["from"] = interval.from;
    head["to"] = interval.to;
    print_objects(console_, head, of_interest(interval, types), types, interval.seconds());
    return;
  }
  print_heading(interval.process, time_text(interval.to) + ", " +
                                      grouped(static_cast<std::uint64_t>(interval.seconds())) +
                                      " s");
  print_table(console_, of_interest(interval, types), types, interval.seconds());
}

void TablePrinter::print_heading(const ProcessKey& process, const std::string& when) {
  console_.out() << (is_first_ ? "" : "\n")
                 << console_.paint(Colour::bold,
                                   process.program.empty() ? "process" : shown(process.program))
                 << ' ' << process.pid << ", " << when << '\n';
  is_first_ = false;
}

CsvPrinter::CsvPrinter(Console& console) : console_(console) {
  console.out() << "time,pid,program,metric,value\n";
}

void CsvPrinter::report(const Report& report, const MetricTypes& types) {
  print_rows(console_, report.time, report.process, report.metrics, types, std::nullopt);
}

void CsvPrinter::interval(const Interval& interval, const MetricTypes& types) {
  print_rows(console_, interval.to, interval.process, of_interest(interval, types), types,
             interval.seconds());
}

}  // namespace quorvane::tool
