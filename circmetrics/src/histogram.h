// The distribution of samples, in bounded memory.
#ifndef CIRCMETRICS_SRC_HISTOGRAM_H_
#define CIRCMETRICS_SRC_HISTOGRAM_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <span>

#include "circmetrics.h"
#include "metric.h"

namespace circmetrics {

// Counts samples in buckets, one for each combination of sign, exponent and the 6 bits
// after the leading one. A bucket spans at most 1/64 of its lower bound, so its middle
// is within 1/128 of every sample in it. The buckets are in a tree of three levels
// whose nodes are made on first use. Thread-safe, and lock-free except for those
// allocations.
//
// Boost.Histogram has no such axis: its thread-safe storage is one block, 2 MB for the
// whole range from the first sample on, and filling an axis that grows takes a lock.
class Histogram final : public Metric {
 public:
  static bool is_type(int type) { return type == CIRCMETRICS_HISTOGRAM; }

  Histogram() : Metric(CIRCMETRICS_HISTOGRAM) {}
  ~Histogram() override;

  // False, changing nothing, for NaN and when out of memory.
  bool insert(double value, std::uint32_t count);

  // False also when the result exceeds the range of double.
  bool insert_scaled(std::int64_t value, std::int32_t scale, std::uint32_t count);

  void write(JsonWriter& json) const override;
  void keep(KeptWords& words) const override;
  void write_kept(JsonWriter& json, std::span<const std::uint64_t> words) const override;

 private:
  static constexpr std::size_t kFanOut = 64;
  static constexpr std::size_t kGroups = 66;
  using Count = std::atomic<std::uint64_t>;
  struct Octave {
    std::array<Count, kFanOut> buckets{};
  };
  struct Group {
    std::array<std::atomic<Octave*>, kFanOut> octaves{};
    ~Group();
  };

  struct Filled {
    double middle;
    std::uint64_t count;
  };

  // What a report shows.
  struct State {
    std::map<double, Filled> filled;  // the buckets that hold samples, by their upper bounds
    double sum;
    double min;
    double max;

    void add(std::size_t index, std::uint64_t count);
    void write(JsonWriter& json) const;
  };

  Count* find_or_make_bucket(double value);
  template <typename Visit>
  void visit_filled(Visit visit) const;
  State state() const;

  std::array<std::atomic<Group*>, kGroups> groups_{};
  std::atomic<double> sum_{0};
  std::atomic<double> min_{std::numeric_limits<double>::infinity()};
  std::atomic<double> max_{-std::numeric_limits<double>::infinity()};
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_HISTOGRAM_H_
