// What the tests of the recorder share.
#ifndef TESTS_CIRCMETRICS_TEST_FIXTURE_H_
#define TESTS_CIRCMETRICS_TEST_FIXTURE_H_

#include <circmetrics.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>

namespace circmetrics_test {

using nlohmann::json;

// Appends each piece of a report to the string at `closure`.
inline ssize_t append(void* closure, const void* bytes, std::size_t length) {
  static_cast<std::string*>(closure)->append(static_cast<const char*>(bytes), length);
  return static_cast<ssize_t>(length);
}

// A new recorder and what it reports.
struct Recorder {
  void* recorder = stats_recorder_alloc();
  void* root = stats_recorder_global_ns(recorder);

  void* ns(void* parent, const char* name) const {
    return stats_register_ns(recorder, parent, name);
  }
  std::string text() const {
    std::string result;
    EXPECT_EQ(stats_recorder_output_json(recorder, 1, 0, &append, &result), 0);
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
