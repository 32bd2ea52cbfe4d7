#include "qvutil/report/prometheus_name.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string>
#include <vector>

#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

struct TimeUnit {
  std::string_view word;
  double seconds;
};

constexpr std::array<TimeUnit, 14> kTimeUnits{{{"ns", 1e-9},
                                               {"us", 1e-6},
                                               {"ms", 1e-3},
                                               {"s", 1},
                                               {"sec", 1},
                                               {"secs", 1},
                                               {"nanoseconds", 1e-9},
                                               {"microseconds", 1e-6},
                                               {"milliseconds", 1e-3},
                                               {"seconds", 1},
                                               {"minutes", 60},
                                               {"hours", 3600},
                                               {"days", 86400},
                                               {"weeks", 604800}}};

// Words that the linters of metrics take for an abbreviated unit, for a type, or for a suffix
// that belongs to other types.
constexpr std::array<std::string_view, 24> kAmbiguous{
    "s",         "ms",      "us",    "ns",  "sec",    "b",     "kb",      "mb",
    "gb",        "tb",      "pb",    "m",   "h",      "d",     "counter", "gauge",
    "histogram", "summary", "total", "sum", "bucket", "count", "le",      "quantile"};

// What units other than seconds and bytes end with, after any prefix such as milli.
constexpr std::array<std::string_view, 21> kUnits{
    "seconds", "bytes",   "minutes", "hours",   "days",       "weeks",   "bits",
    "amperes", "celsius", "kelvin",  "kelvins", "fahrenheit", "rankine", "grams",
    "joules",  "meters",  "metres",  "volts",   "inches",     "yards",   "miles"};

bool ends_with_unit(std::string_view word) {
  constexpr std::array<std::string_view, 3> kMore{"calories", "pounds", "ounces"};
  const auto ends = [&](std::string_view unit) { return word.ends_with(unit); };
  return word != "seconds" && word != "bytes" &&
         (std::any_of(kUnits.begin(), kUnits.end(), ends) ||
          std::any_of(kMore.begin(), kMore.end(), ends));
}

bool is_kept(std::string_view word) {
  return std::find(kAmbiguous.begin(), kAmbiguous.end(), word) == kAmbiguous.end() &&
         !ends_with_unit(word);
}

// The words of a path in lower case; a word begins behind what is no letter or digit, and with a
// capital behind a small letter.
std::vector<std::string> words_of(const std::string& path) {
  std::vector<std::string> words;
  bool begins = true;
  char before = '_';
  for (const char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x80 || std::isalnum(byte) == 0) {
      begins = true;
    } else {
      const bool is_capital = c >= 'A' && c <= 'Z';
      const bool is_inside = begins || (is_capital && before >= 'a' && before <= 'z');
      if (is_inside) {
        words.emplace_back();
      }
      words.back() += is_capital ? static_cast<char>(c | 0x20) : c;
      begins = false;
    }
    before = c;
  }
  return words;
}

// A word that could be misread is joined with the one before.
std::string joined(const std::vector<std::string>& words) {
  std::vector<std::string> kept{"qv"};
  for (const std::string& word : words) {
    kept.push_back(word);
    while (kept.size() > 1 && !is_kept(kept.back())) {
      const std::string last = kept.back();
      kept.pop_back();
      kept.back() += last;
    }
  }
  std::string text;
  for (const std::string& word : kept) {
    text += (text.empty() ? "" : "_") + word;
  }
  return text;
}

}  // namespace

PrometheusName prometheus_name(const std::string& path, MetricType type) {
  std::vector<std::string> words = words_of(path);
  PrometheusName result;
  if (type == MetricType::counter && words.size() > 1 && words.back() == "total") {
    words.pop_back();
  }
  std::string unit;
  const auto* found =
      words.size() < 2
          ? kTimeUnits.end()
          : std::find_if(kTimeUnits.begin(), kTimeUnits.end(),
                         [&](const TimeUnit& known) { return known.word == words.back(); });
  if (found != kTimeUnits.end()) {
    words.pop_back();
    unit = "_seconds";
    result.scale = found->seconds;
  }
  result.name = joined(words) + unit + (type == MetricType::counter ? "_total" : "");
  return result;
}

std::string prometheus_label(std::string_view value) {
  std::string text = "\"";
  for (const char c : shown(value)) {
    text += c == '"' || c == '\\' ? "\\" : "";
    text += c;
  }
  return text + "\"";
}

}  // namespace quorvane::tool
