// The buckets of histograms in the report, and what readers make of them.
#include <circmetrics.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "circmetrics_test/fixture.h"

using namespace circmetrics_test;

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kLargest = std::numeric_limits<double>::max();
constexpr double kSmallest = std::numeric_limits<double>::denorm_min();

// A recorder with one histogram.
struct OneHistogram : Recorder {
  void* histogram = stats_register(root, "h", CIRCMETRICS_HISTOGRAM);

  void insert(double sample, std::uint32_t count = 1) const {
    ASSERT_EQ(stats_set_hist(histogram, sample, count), 0);
  }
  json reported() const { return state()["h"]; }
};

// The counts by their bounds; null counts as infinity.
using Buckets = std::map<double, std::uint64_t>;

Buckets buckets_of(const json& histogram) {
  Buckets buckets;
  for (const json& bucket : histogram["buckets"]) {
    const double bound = bucket[0].is_null() ? kInfinity : bucket[0].get<double>();
    EXPECT_TRUE(buckets.emplace(bound, bucket[1]).second) << "a bound occurs twice: " << bound;
  }
  return buckets;
}

void expect_buckets_of(const std::vector<double>& samples) {
  const OneHistogram recorder;
  Buckets expected;
  for (const double sample : samples) {
    recorder.insert(sample, 3);
    expected[bound_of(sample)] += 3;
  }
  const json histogram = recorder.reported();
  EXPECT_TRUE(buckets_of(histogram) == expected);  // too long to print
  EXPECT_EQ(histogram["buckets"].size(), expected.size());
  EXPECT_EQ(histogram["count"], 3 * samples.size());
}

}  // namespace

TEST(CircmetricsBuckets, HaveASixtyFourthOfTheirOctaveEach) {
  const OneHistogram recorder;
  for (const double sample : {64.0, 64.9, 65.0, 127.5, -64.0, -64.9, -65.0}) {
    recorder.insert(sample);
  }
  EXPECT_EQ(recorder.reported()["buckets"].dump(), "[[-65,1],[-64,2],[65,2],[66,1],[128,1]]");
}

TEST(CircmetricsBuckets, HoldEachSampleInTheOneWithItsBound) {
  std::mt19937_64 random(12);
  std::vector<double> samples{0.0, -0.0, kSmallest, -kSmallest, kLargest, -kLargest};
  while (samples.size() < 20000) {
    const auto sample = std::bit_cast<double>(random());
    if (std::isfinite(sample)) {
      samples.push_back(sample);
      samples.push_back(std::bit_cast<double>(random() >> 12 >> random() % 52));
      samples.push_back(-samples.back());
    }
  }
  expect_buckets_of(samples);
}

TEST(CircmetricsBuckets, AscendFromTheLowestDoubleToNullForInfinity) {
  const OneHistogram recorder;
  for (const double sample : {kInfinity, kLargest, kSmallest, 0.0, -kSmallest, -kInfinity}) {
    recorder.insert(sample);
  }
  EXPECT_NE(
      recorder.text().find("\"buckets\":[[-1.7976931348623157e+308,1],[-5e-324,1],[0,1],[1e-323,1],"
                           "[1.7976931348623157e+308,1],[null,1]]}"),
      std::string::npos)
      << recorder.text();
}

TEST(CircmetricsBuckets, AreAtMost64ForEachDoubling) {
  const OneHistogram recorder;
  for (double sample = 1; sample < 1024; sample *= 1.001) {
    recorder.insert(sample);
  }
  EXPECT_EQ(recorder.reported()["buckets"].size(), 640U);
}

TEST(CircmetricsBuckets, AreAtMost267905ForAllDoubles) {
  const OneHistogram recorder;
  recorder.insert(0);
  for (const double sign : {1.0, -1.0}) {
    for (int exponent = -1074; exponent <= 1023; ++exponent) {
      for (int step = 64; step < 128; ++step) {
        recorder.insert(sign * std::ldexp(step, exponent - 6));
      }
    }
    recorder.insert(sign * kInfinity);
  }
  const std::string text = recorder.text();  // to parse it takes a sanitizer minutes
  EXPECT_EQ(std::count(text.begin(), text.end(), '['), 1 + 267905);
}

TEST(CircmetricsBuckets, KeepTheirBoundsFromReportToReport) {
  const OneHistogram recorder;
  std::mt19937_64 random(13);
  std::lognormal_distribution<double> sample(0, 5);
  Buckets before;
  for (int round = 0; round < 10; ++round) {
    for (int index = 0; index < 500; ++index) {
      recorder.insert(sample(random));
    }
    const Buckets after = buckets_of(recorder.reported());
    for (const auto& [bound, count] : before) {
      ASSERT_TRUE(after.contains(bound)) << bound;
      EXPECT_GE(after.at(bound), count) << bound;
    }
    before = after;
  }
}

namespace {

Buckets difference(Buckets later, const Buckets& earlier) {
  for (const auto& [bound, count] : earlier) {
    later[bound] -= count;
  }
  return later;
}

// As a reader makes it: 127/128 of a bound is within 1 % of every sample of its bucket.
double percentile(const Buckets& buckets, double fraction) {
  double total = 0;
  for (const auto& [bound, count] : buckets) {
    total += static_cast<double>(count);
  }
  double below = 0;
  for (const auto& [bound, count] : buckets) {
    below += static_cast<double>(count);
    if (below >= fraction * total) {
      return bound * 127 / 128;
    }
  }
  return kInfinity;
}

}  // namespace

TEST(CircmetricsBuckets, ShowTheP99OfASpikeThatTheWholeRunHides) {
  const OneHistogram recorder;
  recorder.insert(1, 200000);  // milliseconds
  const Buckets before = buckets_of(recorder.reported());
  std::vector<double> spike;
  for (int index = 0; index < 1000; ++index) {
    spike.push_back(index % 50 == 0 ? 47 : 1);
    recorder.insert(spike.back());
  }
  std::sort(spike.begin(), spike.end());
  ASSERT_EQ(spike[989], 47);  // the true one
  const json after = recorder.reported();
  EXPECT_NEAR(percentile(difference(buckets_of(after), before), 0.99), 47, 0.47);
  EXPECT_NEAR(after["p99"], 1, 0.01);
}

TEST(CircmetricsBuckets, GivePercentilesWithinOnePercentOverAnyInterval) {
  const OneHistogram recorder;
  std::mt19937_64 random(15);
  std::lognormal_distribution<double> sample(0, 3);
  Buckets before;
  for (int round = 0; round < 10; ++round) {
    std::vector<double> samples(2000);
    for (double& drawn : samples) {
      drawn = sample(random) * (round + 1);
      recorder.insert(drawn);
    }
    std::sort(samples.begin(), samples.end());
    const Buckets after = buckets_of(recorder.reported());
    const Buckets interval = difference(after, before);
    for (const auto& [fraction, rank] : {std::pair{0.5, 1000}, {0.9, 1800}, {0.99, 1980}}) {
      const double exact = samples[static_cast<std::size_t>(rank) - 1];
      EXPECT_NEAR(percentile(interval, fraction), exact, exact * 0.01) << round;
    }
    before = after;
  }
}
