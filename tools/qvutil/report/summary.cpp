#include "qvutil/report/summary.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <string>

namespace quorvane::tool {
namespace {

Json finite(double value) { return std::isfinite(value) ? Json(value) : Json(); }

double as_double(const Value& value) {
  if (const auto* whole = std::get_if<std::int64_t>(&value)) {
    return static_cast<double>(*whole);
  }
  const auto* real = std::get_if<double>(&value);
  return real == nullptr ? Histogram::kUnknown : *real;
}

Json summary_of(const Histogram& histogram, std::optional<double> seconds) {
  Json summary;
  const std::uint64_t count = histogram.count();
  if (seconds) {
    summary["per_second"] = finite(static_cast<double>(count) / *seconds);
  }
  summary["count"] = count;
  summary["sum"] = finite(histogram.sum);
  summary["min"] = finite(histogram.min);
  summary["mean"] = finite(histogram.mean());
  summary["p50"] = finite(histogram.percentile(0.5));
  summary["p90"] = finite(histogram.percentile(0.9));
  summary["p99"] = finite(histogram.percentile(0.99));
  summary["max"] = finite(histogram.max);
  return summary;
}

}  // namespace

Json summary(MetricType type, const Value& value, std::optional<double> seconds) {
  if (const auto* histogram = std::get_if<Histogram>(&value)) {
    return summary_of(*histogram, seconds);
  }
  if (type == MetricType::counter && seconds) {
    return Json{{"per_second", finite(as_double(value) / *seconds)}};
  }
  if (const auto* whole = std::get_if<std::int64_t>(&value)) {
    return Json{{"value", *whole}};
  }
  return Json{{"value", finite(as_double(value))}};
}

std::string number_text(const Json& number, int digits) {
  if (number.is_null()) {
    return "";
  }
  if (!number.is_number_float()) {
    return number.dump();
  }
  std::array<char, 32> text;
  char* const end = text.data() + text.size();
  const double value = number.get<double>();
  return {text.data(),
          digits == 0
              ? std::to_chars(text.data(), end, value).ptr
              : std::to_chars(text.data(), end, value, std::chars_format::general, digits).ptr};
}

}  // namespace quorvane::tool
