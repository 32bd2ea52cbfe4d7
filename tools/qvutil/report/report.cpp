#include "qvutil/report/report.h"

#include <cstddef>
#include <limits>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "qvutil/output/outcome.h"

namespace quorvane::tool {
namespace {

using nlohmann::json;

constexpr std::int64_t kLastTime = 253402300799;  // the year 9999 ends
constexpr int kDeepest = 1000;                    // components of a module's path

[[noreturn]] void refuse(const std::string& reason) { throw Failure(reason); }

const json& member(const json& object, const char* name) {
  const auto found = object.find(name);
  if (found == object.end()) {
    refuse(std::string("no member ") + name);
  }
  return *found;
}

std::int64_t whole_number(const json& number, const char* name, std::int64_t last) {
  if (!number.is_number_unsigned() ||
      number.get<std::uint64_t>() > static_cast<std::uint64_t>(last)) {
    refuse(std::string(name) + " is not a whole number in its range");
  }
  return number.get<std::int64_t>();
}

double number_or_unknown(const json& histogram, const char* name) {
  const json& number = member(histogram, name);
  if (!number.is_number() && !number.is_null()) {
    refuse(std::string(name) + " of a histogram is not a number");
  }
  return number.is_null() ? Histogram::kUnknown : number.get<double>();
}

Bucket bucket_of(const json& pair) {
  if (!pair.is_array() || pair.size() != 2 || !(pair[0].is_number() || pair[0].is_null()) ||
      !pair[1].is_number_unsigned()) {
    refuse("a bucket is not a bound and a count");
  }
  return {pair[0].is_null() ? std::numeric_limits<double>::infinity() : pair[0].get<double>(),
          pair[1].get<std::uint64_t>()};
}

Histogram histogram_of(const json& object) {
  Histogram histogram;
  histogram.sum = number_or_unknown(object, "sum");
  histogram.min = number_or_unknown(object, "min");
  histogram.max = number_or_unknown(object, "max");
  std::uint64_t count = 0;
  for (const json& pair : object["buckets"]) {
    const Bucket bucket = bucket_of(pair);
    if (!histogram.buckets.empty() && histogram.buckets.back().bound >= bucket.bound) {
      refuse("the bounds of a histogram don't ascend");
    }
    if (__builtin_add_overflow(count, bucket.count, &count)) {
      refuse("the counts of a histogram are too large");
    }
    histogram.buckets.push_back(bucket);
  }
  return histogram;
}

Value value_of(const json& metric) {
  if (metric.is_null()) {
    return std::monostate{};
  }
  if (metric.is_object()) {
    return histogram_of(metric);
  }
  if (!metric.is_number()) {
    refuse("a metric is neither a number nor a histogram");
  }
  const bool is_large = metric.is_number_unsigned() &&
                        metric.get<std::uint64_t>() >
                            static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (metric.is_number_float() || is_large) {
    return metric.get<double>();
  }
  return metric.get<std::int64_t>();
}

bool is_histogram(const json& object) {
  const auto buckets = object.find("buckets");
  return buckets != object.end() && buckets->is_array();
}

// The path of a member. The slashes at the end of a module's name only tell it from a metric
// of the same name.
std::string path_of(const std::string& module, std::string name, bool is_module) {
  while (is_module && !name.empty() && name.back() == '/') {
    name.pop_back();
  }
  return module.empty() ? name : module + "/" + name;
}

void add_metrics(Metrics& metrics, const json& object, const std::string& module, int depth) {
  if (depth > kDeepest) {
    refuse("too many components in a module's path");
  }
  for (const auto& [name, value] : object.items()) {
    if (depth == 0 && (name == "@process" || name == "@inherited")) {
      continue;
    }
    if (value.is_object() && !is_histogram(value)) {
      add_metrics(metrics, value, path_of(module, name, true), depth + 1);
      continue;
    }
    // A metric whose name has slashes may be taken for one of another module.
    std::string path = path_of(module, name, false);
    while (metrics.count(path) != 0) {
      path += '/';
    }
    metrics.emplace(std::move(path), value_of(value));
  }
}

Metrics metrics_of(const json& object) {
  Metrics metrics;
  add_metrics(metrics, object, "", 0);
  return metrics;
}

ProcessKey process_of(const json& log) {
  const json& object = member(log, "@process");
  if (!object.is_object()) {
    refuse("@process is not an object");
  }
  ProcessKey process;
  process.pid = whole_number(member(object, "pid"), "pid", std::numeric_limits<int>::max());
  const json& program = member(object, "program");
  if (!program.is_string() && !program.is_null()) {
    refuse("program is not a string");
  }
  process.program = program.is_null() ? "" : program.get<std::string>();
  if (const json& start = member(object, "start"); !start.is_null()) {
    process.start = whole_number(start, "start", kLastTime);
  }
  return process;
}

// A metric has kept its kind and its counts only went up, or it wasn't the one at the fork.
Value without(const Value& now, const Value& inherited) {
  if (const auto* count = std::get_if<std::int64_t>(&now)) {
    if (const auto* before = std::get_if<std::int64_t>(&inherited)) {
      return static_cast<std::int64_t>(static_cast<std::uint64_t>(*count) -
                                       static_cast<std::uint64_t>(*before));
    }
  }
  if (const auto* histogram = std::get_if<Histogram>(&now)) {
    if (const auto* before = std::get_if<Histogram>(&inherited)) {
      if (auto added = difference(*histogram, *before)) {
        return *std::move(added);
      }
    }
  }
  refuse("a metric contradicts its inherited value");
}

void take_off_inherited(Report& report, const json& log) {
  const auto inherited = log.find("@inherited");
  if (inherited == log.end()) {
    return;
  }
  if (inherited->is_null()) {
    report.has_parents_counts = true;
    return;
  }
  if (!inherited->is_object()) {
    refuse("@inherited is not an object");
  }
  for (const auto& [path, value] : metrics_of(*inherited)) {
    const auto now = report.metrics.find(path);
    if (now == report.metrics.end()) {
      refuse("an inherited metric is missing");
    }
    now->second = without(now->second, value);
    report.counted.insert(path);
  }
}

}  // namespace

Report report_of_line(std::string_view line) {
  if (line.size() >= kLongestLine) {
    refuse("the line is too long");
  }
  const json whole = json::parse(line, nullptr, /*allow_exceptions=*/false);
  if (!whole.is_object()) {
    refuse("not a JSON object");
  }
  const json& log = member(whole, "log");
  if (!log.is_object()) {
    refuse("log is not an object");
  }
  Report report;
  report.time = whole_number(member(whole, "ts"), "ts", kLastTime);
  report.process = process_of(log);
  report.metrics = metrics_of(log);
  take_off_inherited(report, log);
  return report;
}

}  // namespace quorvane::tool
