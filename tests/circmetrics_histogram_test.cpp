// Histograms: their samples, sums and percentiles, and the memory they take.
#include <circmetrics.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "circmetrics_test/fixture.h"

using namespace circmetrics_test;

namespace {

// A sanitizer has its own allocator.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

std::size_t allocated_bytes() {
  if (&__sanitizer_get_current_allocated_bytes != nullptr) {
    return __sanitizer_get_current_allocated_bytes();
  }
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

constexpr const char* kPercentileKeys[] = {"p50", "p90", "p99", "p99.9"};
constexpr double kFractions[] = {0.5, 0.9, 0.99, 0.999};

// Each percentile must be within 1 % of the sample of its rank.
void expect_close_percentiles(std::vector<double> samples) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  for (const double sample : samples) {
    ASSERT_EQ(stats_set_hist(histogram, sample, 1), 0);
  }
  std::sort(samples.begin(), samples.end());
  const json state = recorder.state()["h"];
  for (std::size_t index = 0; index < std::size(kFractions); ++index) {
    const auto rank = std::ceil(kFractions[index] * static_cast<double>(samples.size()));
    const double exact = samples[static_cast<std::size_t>(rank) - 1];
    EXPECT_NEAR(state[kPercentileKeys[index]].get<double>(), exact, std::abs(exact) * 0.01)
        << kPercentileKeys[index];
  }
  EXPECT_EQ(state["count"], samples.size());
  EXPECT_EQ(state["min"], samples.front());
  EXPECT_EQ(state["max"], samples.back());
}

template <typename Distribution>
std::vector<double> draw(Distribution distribution, std::size_t count) {
  std::mt19937_64 random(20240301);
  std::vector<double> samples(count);
  for (double& sample : samples) {
    sample = distribution(random);
  }
  return samples;
}

}  // namespace

TEST(Circmetrics, AHistogramWithoutSamplesHasNothingButItsCount) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  EXPECT_EQ(stats_set_hist(histogram, 5, 0), 0);
  EXPECT_EQ(stats_set_hist(histogram, std::numeric_limits<double>::quiet_NaN(), 1), -1);
  EXPECT_EQ(recorder.text(), R"({"h":{"count":0,"sum":0,"min":null,"max":null,"mean":null,)"
                             R"("p50":null,"p90":null,"p99":null,"p99.9":null,"buckets":[]}})");
}

TEST(Circmetrics, AHistogramOfOneValueReportsExactlyThat) {
  for (const double value : {0.0, 1.0, 0.1, -7.3, 1e300, 5e-324, 123456789.0}) {
    const Recorder recorder;
    stats_set_hist(stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM), value, 4);
    EXPECT_EQ(recorder.state()["h"], (json{{"count", 4},
                                           {"sum", 4 * value},
                                           {"min", value},
                                           {"max", value},
                                           {"mean", value},
                                           {"p50", value},
                                           {"p90", value},
                                           {"p99", value},
                                           {"p99.9", value},
                                           {"buckets", {{bound_of(value), 4}}}}));
  }
}

TEST(Circmetrics, NoSamplesChangeNothing) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  stats_set_hist(histogram, 5, 1);
  const std::string before = recorder.text();
  for (const double value : {0.0, 1.0, 9.0}) {
    EXPECT_EQ(stats_set_hist(histogram, value, 0), 0);
    EXPECT_EQ(stats_set_hist_intscale(histogram, static_cast<int64_t>(value), 0, 0), 0);
  }
  EXPECT_EQ(recorder.text(), before);
}

TEST(Circmetrics, TheMeanIsWithinTheSamples) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  for (int sample = 0; sample < 10; ++sample) {
    stats_set_hist(histogram, 0.1, 1);
  }
  const json state = recorder.state()["h"];
  EXPECT_LT(state["sum"], 1.0);  // the sum of doubles is inexact
  EXPECT_EQ(state["mean"], 0.1);
}

TEST(Circmetrics, ZerosOfBothSignsAreTheSameSample) {
  std::string texts[2];
  for (const bool negative_first : {false, true}) {
    const Recorder recorder;
    void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
    stats_set_hist(histogram, negative_first ? -0.0 : 0.0, 1);
    stats_set_hist(histogram, negative_first ? 0.0 : -0.0, 1);
    texts[negative_first] = recorder.text();
  }
  EXPECT_EQ(texts[0], R"({"h":{"count":2,"sum":0,"min":0,"max":0,"mean":0,)"
                      R"("p50":0,"p90":0,"p99":0,"p99.9":0,"buckets":[[0,2]]}})");
  EXPECT_EQ(texts[1], texts[0]);
}

namespace {

void record_many(void* histogram, double value, std::uint64_t count) {
  for (std::uint64_t left = count; left > 0;) {
    const auto part = static_cast<std::uint32_t>(std::min<std::uint64_t>(left, UINT32_MAX));
    ASSERT_EQ(stats_set_hist(histogram, value, part), 0);
    left -= part;
  }
}

}  // namespace

TEST(Circmetrics, RanksAreExactWhereDoublesSkipNumbers) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  // The rank of the median is the number of ones plus one.
  constexpr std::uint64_t kBeyondDoubles = std::uint64_t{1} << 53;
  record_many(histogram, 1, kBeyondDoubles + 3);
  record_many(histogram, 2, kBeyondDoubles + 5);
  const json state = recorder.state()["h"];
  EXPECT_EQ(state["count"], 2 * kBeyondDoubles + 8);
  EXPECT_EQ(state["p50"], 2);
}

TEST(Circmetrics, RanksAreRightWhereTheirNumeratorsAreBeyond64Bits) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  constexpr std::uint64_t kHalf = 15'000'000'000'000'000;  // 999 * 2 * kHalf is 1.6 * 2^64
  record_many(histogram, 1, kHalf);
  record_many(histogram, 2, kHalf);
  const json state = recorder.state()["h"];
  EXPECT_NEAR(state["p50"].get<double>(), 1, 0.01);
  EXPECT_EQ(state["p90"], 2);
  EXPECT_EQ(state["p99"], 2);
  EXPECT_EQ(state["p99.9"], 2);
}

TEST(Circmetrics, PercentilesAreWithinOnePercent) {
  expect_close_percentiles(draw(std::lognormal_distribution<double>(0, 5), 20000));
  expect_close_percentiles(draw(std::uniform_real_distribution<double>(1e-3, 1), 20000));
  expect_close_percentiles(draw(std::uniform_real_distribution<double>(-1000, 10), 20000));
  expect_close_percentiles(draw(std::normal_distribution<double>(0, 1e9), 20000));
  expect_close_percentiles({3});
  expect_close_percentiles({1, 2});
  expect_close_percentiles({-5, 0, 0, 7});
}

TEST(Circmetrics, EveryMagnitudeIsWithinOnePercent) {
  constexpr double kLargest = std::numeric_limits<double>::max();
  const Recorder recorder;
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> fraction(1, 2);
  std::vector<double> samples;
  for (int exponent = -1074; exponent <= 1023; ++exponent) {
    samples.push_back(std::ldexp(fraction(random), exponent));
    samples.push_back(-std::ldexp(fraction(random), exponent));
  }
  for (int multiple = 1; multiple <= 300; ++multiple) {
    samples.push_back(multiple * std::numeric_limits<double>::denorm_min());
  }
  for (std::size_t index = 0; index < samples.size(); ++index) {
    void* histogram =
        stats_register(recorder.root, std::to_string(index).c_str(), CIRCMETRICS_HISTOGRAM);
    for (const double sample : {-kLargest, samples[index], kLargest}) {
      ASSERT_EQ(stats_set_hist(histogram, sample, 1), 0);
    }
  }
  const json state = recorder.state();
  for (std::size_t index = 0; index < samples.size(); ++index) {
    const double sample = samples[index];
    EXPECT_NEAR(state[std::to_string(index)]["p50"].get<double>(), sample, std::abs(sample) * 0.01);
  }
}

TEST(Circmetrics, PercentilesHoldTheOrderOfTheSmallestDoubles) {
  std::vector<double> small(20000);
  std::mt19937_64 random(8);
  for (double& sample : small) {
    const std::uint64_t bits = random();
    sample = std::bit_cast<double>(bits >> 12 >> (bits & 63) % 50);
  }
  expect_close_percentiles(small);
  std::vector<double> both = small;
  for (double& sample : small) {
    sample = -sample;
  }
  expect_close_percentiles(small);
  both.insert(both.end(), small.begin(), small.end());
  both.insert(both.end(), {0.0, -0.0, 1.0, -1.0});
  expect_close_percentiles(both);
}

TEST(Circmetrics, PercentilesOfRandomBitsAreWithinOnePercent) {
  std::vector<double> samples;
  std::mt19937_64 random(9);
  while (samples.size() < 20000) {
    const auto sample = std::bit_cast<double>(random());
    if (std::isfinite(sample)) {
      samples.push_back(sample);
    }
  }
  expect_close_percentiles(samples);
}

TEST(Circmetrics, AHistogramTakesBoundedMemory) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  const auto insert_all = [&](double fraction) {
    for (int exponent = -1074; exponent <= 1024; ++exponent) {
      stats_set_hist(histogram, std::ldexp(fraction, exponent), 1);
      stats_set_hist(histogram, -std::ldexp(fraction, exponent), 1);
    }
    stats_set_hist(histogram, 0.0, 1);
    stats_set_hist(histogram, -0.0, 1);
  };
  const std::size_t before = allocated_bytes();
  insert_all(1);
  const std::size_t filled = allocated_bytes();
  EXPECT_GT(filled - before, 1000000);
  EXPECT_LT(filled - before, 2300000);
  for (double fraction = 1; fraction < 2; fraction += 1.0 / 256) {
    insert_all(fraction);
  }
  EXPECT_EQ(allocated_bytes(), filled);
}

TEST(Circmetrics, InfiniteSamplesAreCountedAndReportedAsNull) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  EXPECT_EQ(stats_set_hist(histogram, std::numeric_limits<double>::infinity(), 1), 0);
  EXPECT_EQ(stats_set_hist(histogram, 2, 1), 0);
  const json state = recorder.state()["h"];
  EXPECT_EQ(state["count"], 2);
  EXPECT_EQ(state["min"], 2);
  EXPECT_EQ(state["max"], nullptr);
  EXPECT_EQ(state["sum"], nullptr);
  EXPECT_NEAR(state["p50"].get<double>(), 2, 0.02);
  EXPECT_EQ(state["p99"], nullptr);
}

TEST(Circmetrics, ScaledSamplesAreTheValueTimesAPowerOfTen) {
  constexpr int32_t kLowest = std::numeric_limits<int32_t>::min();
  constexpr int32_t kHighest = std::numeric_limits<int32_t>::max();
  const struct {
    int64_t value;
    int32_t scale;
    json sum;
  } cases[] = {{125, 0, 125},   {125, 2, 12500.0},      {125, -3, 0.125}, {-3, 22, -3e22},
               {1, 300, 1e300}, {1, -300, 1e-300},      {0, kHighest, 0}, {5, kLowest, 0},
               {7, -1, 0.7},    {1000000, -320, 1e-314}};
  for (const auto& [value, scale, sum] : cases) {
    const Recorder recorder;
    void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
    EXPECT_EQ(stats_set_hist_intscale(histogram, value, scale, 1), 0);
    EXPECT_EQ(recorder.state()["h"]["count"], 1);
    EXPECT_EQ(recorder.state()["h"]["sum"], sum) << value << "e" << scale;
  }
}

TEST(Circmetrics, ScaledSamplesAreRoundedOnce) {
  std::mt19937_64 random(11);
  for (int round = 0; round < 3000; ++round) {
    const auto value = static_cast<int64_t>(random() >> random() % 64);
    const auto scale =
        static_cast<int32_t>(random() % (round % 2 == 0 ? 46 : 681)) - (round % 2 == 0 ? 23 : 360);
    const Recorder recorder;
    void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
    const std::string text = std::to_string(value) + "e" + std::to_string(scale);
    const double nearest = std::strtod(text.c_str(), nullptr);
    const bool fits = std::isfinite(nearest);
    ASSERT_EQ(stats_set_hist_intscale(histogram, value, scale, 1), fits ? 0 : -1) << text;
    EXPECT_EQ(recorder.state()["h"]["sum"], fits ? json(nearest) : json(0)) << text;
  }
}

TEST(Circmetrics, ScaledSamplesBeyondDoublesAreRefused) {
  const Recorder recorder;
  void* histogram = stats_register(recorder.root, "h", CIRCMETRICS_HISTOGRAM);
  stats_set_hist_intscale(histogram, 7, 0, 1);
  const std::string before = recorder.text();
  constexpr int32_t kHighest = std::numeric_limits<int32_t>::max();
  for (const auto& [value, scale] :
       {std::pair<int64_t, int32_t>{-1, kHighest}, {1, kHighest}, {2, 308}, {1, 309}}) {
    EXPECT_EQ(stats_set_hist_intscale(histogram, value, scale, 1), -1) << value << "e" << scale;
    EXPECT_EQ(stats_set_hist_intscale(histogram, value, scale, 0), -1) << value << "e" << scale;
  }
  EXPECT_EQ(recorder.text(), before);
}
