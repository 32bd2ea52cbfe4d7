#include "qvutil/report/interval.h"

#include <string>

namespace quorvane::tool {
namespace {

const Value* found_in(const Report& report, const std::string& path) {
  const auto found = report.metrics.find(path);
  return found == report.metrics.end() ? nullptr : &found->second;
}

Value added_to(const Value* earlier, const Value& later) {
  if (earlier == nullptr || earlier->index() != later.index()) {
    return later;
  }
  if (const auto* count = std::get_if<std::int64_t>(&later)) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(*count) -
                                     static_cast<std::uint64_t>(std::get<std::int64_t>(*earlier)));
  }
  if (const auto* histogram = std::get_if<Histogram>(&later)) {
    return difference(*histogram, std::get<Histogram>(*earlier)).value_or(*histogram);
  }
  return later;
}

Metrics values_of(const Report& report) {
  Metrics values;
  for (const auto& [path, value] : report.metrics) {
    if (!std::holds_alternative<Histogram>(value)) {
      values.emplace_hint(values.end(), path, value);
    }
  }
  return values;
}

}  // namespace

bool has_begun_anew(const Report& earlier, const Report& later) {
  for (const auto& [path, value] : later.metrics) {
    const auto* histogram = std::get_if<Histogram>(&value);
    const Value* before = histogram == nullptr ? nullptr : found_in(earlier, path);
    const auto* old = before == nullptr ? nullptr : std::get_if<Histogram>(before);
    if (old != nullptr && !difference(*histogram, *old)) {
      return true;
    }
  }
  return false;
}

std::optional<Interval> interval_between(const Report& earlier, const Report& later) {
  if (later.time <= earlier.time || has_begun_anew(earlier, later)) {
    return std::nullopt;
  }
  Interval interval{later.process, earlier.time, later.time, {}, values_of(later)};
  for (const auto& [path, value] : later.metrics) {
    interval.added.emplace_hint(interval.added.end(), path,
                                added_to(found_in(earlier, path), value));
  }
  return interval;
}

std::optional<Interval> interval_to(const Report& first) {
  if (!first.process.start || *first.process.start >= first.time || first.has_parents_counts) {
    return std::nullopt;
  }
  return Interval{first.process, *first.process.start, first.time, first.metrics, values_of(first)};
}

}  // namespace quorvane::tool
