#include "qvutil/report/summary.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <string>

namespace quorvane::tool {
namespace {

Json number(double value) { return std::isfinite(value) ? Json(value) : Json(); }

double as_double(const Value& value) {
  if (const auto* whole = std::get_if<std::int64_t>(&value)) {
    return static_cast<double>(*whole);
  }
  const auto* real = std::get_if<double>(&value);
  return real == nullptr ? Histogram::kUnknown : *real;
}

Json summary_of(const Histogram& histogram, std::optional<double> seconds) {
  Json json;
  const std::uint64_t count = histogram.count();
  if (seconds) {
    json["per_second"] = number(static_cast<double>(count) / *seconds);
  }
  json["count"] = count;
  json["sum"] = number(histogram.sum);
  json["min"] = number(histogram.min);
  json["mean"] = number(histogram.mean());
  json["p50"] = number(histogram.percentile(0.5));
  json["p90"] = number(histogram.percentile(0.9));
  json["p99"] = number(histogram.percentile(0.99));
  json["max"] = number(histogram.max);
  return json;
}

}  // namespace

Json summary(MetricType type, const Value& value, std::optional<double> seconds) {
  if (const auto* histogram = std::get_if<Histogram>(&value)) {
    return summary_of(*histogram, seconds);
  }
  if (type == MetricType::counter && seconds) {
    return Json{{"per_second", number(as_double(value) / *seconds)}};
  }
  if (const auto* whole = std::get_if<std::int64_t>(&value)) {
    return Json{{"value", *whole}};
  }
  return Json{{"value", number(as_double(value))}};
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
