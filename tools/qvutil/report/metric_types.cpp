#include "qvutil/report/metric_types.h"

#include <fnmatch.h>

#include <algorithm>
#include <string>
#include <utility>

#include "qvutil/report/interval.h"

namespace quorvane::tool {
namespace {

bool can_be_counter(const Value& value, const Value* before) {
  const auto* count = std::get_if<std::int64_t>(&value);
  if (count == nullptr || *count < 0) {
    return false;
  }
  const auto* count_before = before == nullptr ? nullptr : std::get_if<std::int64_t>(before);
  return count_before == nullptr || *count_before <= *count;
}

}  // namespace

const char* name_of(MetricType type) {
  switch (type) {
    case MetricType::counter:
      return "counter";
    case MetricType::gauge:
      return "gauge";
    case MetricType::histogram:
      break;
  }
  return "histogram";
}

MetricTypes::MetricTypes(std::vector<std::string> gauges) : patterns_(std::move(gauges)) {
  patterns_.insert(patterns_.end(), {"cache/*/entries", "cache/*/bytes"});
}

void MetricTypes::see(const Report& report, const Report* before) {
  counters_.insert(report.counted.begin(), report.counted.end());
  const bool is_new = before == nullptr || has_begun_anew(*before, report);
  for (const auto& [path, value] : report.metrics) {
    if (std::holds_alternative<Histogram>(value)) {
      continue;
    }
    const Value* old = nullptr;
    if (!is_new) {
      const auto found = before->metrics.find(path);
      old = found == before->metrics.end() ? nullptr : &found->second;
    }
    if (!can_be_counter(value, old)) {
      gauges_.insert(path);
    }
  }
}

MetricType MetricTypes::of(const std::string& path, const Value& value) const {
  if (std::holds_alternative<Histogram>(value)) {
    return MetricType::histogram;
  }
  const bool is_whole = std::holds_alternative<std::int64_t>(value);
  if (!is_whole || matches(path)) {
    return MetricType::gauge;
  }
  const bool is_gauge = gauges_.count(path) != 0 && counters_.count(path) == 0;
  return is_gauge ? MetricType::gauge : MetricType::counter;
}

bool MetricTypes::matches(const std::string& path) const {
  return std::any_of(patterns_.begin(), patterns_.end(), [&](const std::string& pattern) {
    return fnmatch(pattern.c_str(), path.c_str(), 0) == 0;
  });
}

}  // namespace quorvane::tool
