// What the tests of the recorder share.
#ifndef TESTS_CIRCMETRICS_TEST_FIXTURE_H_
#define TESTS_CIRCMETRICS_TEST_FIXTURE_H_

#include <circmetrics.h>
#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <sstream>
#include <string>

#include "support/json.h"

namespace circmetrics_test {

using nlohmann::json;

// Appends each piece of a report to the string at `closure`.
inline ssize_t append(void* closure, const void* bytes, std::size_t length) {
  static_cast<std::string*>(closure)->append(static_cast<const char*>(bytes), length);
  return static_cast<ssize_t>(length);
}

// Removes the first member of the object in `text`, if it has this key. Returns its value, or
// a discarded one.
inline json take_first(std::string& text, const std::string& key) {
  const std::string head = "{\"" + key + "\":";
  if (text.rfind(head, 0) != 0) {
    return json(json::value_t::discarded);
  }
  std::istringstream rest(text.substr(head.size()));
  json value;
  rest >> value;
  const std::size_t end = head.size() + static_cast<std::size_t>(rest.tellg());
  text.replace(0, text.at(end) == ',' ? end + 1 : end, "{");
  return value;
}

// The bound of the bucket that has the sample.
inline double bound_of(double sample) {
  constexpr double kLargest = std::numeric_limits<double>::max();
  int exponent = 0;
  const double steps = std::floor(std::frexp(std::abs(sample), &exponent) * 128);
  if (sample <= 0) {
    return sample == 0 ? 0 : -std::ldexp(steps / 128, exponent);
  }
  // The smallest buckets have one double each.
  const double bound = std::ldexp((steps + 1) / 128, exponent);
  return std::min(bound > sample ? bound : std::nextafter(sample, kLargest), kLargest);
}

// A new recorder and what it reports.
struct Recorder {
  void* recorder = stats_recorder_alloc();
  void* root = stats_recorder_global_ns(recorder);

  void* ns(void* parent, const char* name) const {
    return stats_register_ns(recorder, parent, name);
  }
  std::string whole_text() const {
    std::string result;
    EXPECT_EQ(stats_recorder_output_json(recorder, 1, 0, &append, &result), 0);
    return result;
  }
  // Without what it says about the process, which must be this one.
  std::string text() const {
    std::string result = whole_text();
    EXPECT_EQ(take_first(result, "@process").at("pid"), getpid());
    take_first(result, "@inherited");
    return result;
  }
  json state() const { return json::parse(text()); }
};

inline void add_ones(void* counter, int count) {
  for (int index = 0; index < count; ++index) {
    stats_add64(counter, 1);
  }
}

// So many additions that two threads that share a cell would lose some. A sanitizer build is
// slower, but reports the race.
#ifdef QV_SANITIZED
constexpr int kEnoughToCollide = 100000;
#else
constexpr int kEnoughToCollide = 30000000;
#endif

}  // namespace circmetrics_test

#endif  // TESTS_CIRCMETRICS_TEST_FIXTURE_H_
