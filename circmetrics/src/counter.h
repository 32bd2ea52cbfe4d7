// A sum that many threads add to.
#ifndef CIRCMETRICS_SRC_COUNTER_H_
#define CIRCMETRICS_SRC_COUNTER_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "circmetrics.h"
#include "metric.h"

namespace circmetrics {

// The sum over shards: threads add to different cache lines, so that they don't
// wait for each other. Thread-safe.
class Counter final : public Metric {
 public:
  static bool is_type(int type) { return type == CIRCMETRICS_COUNTER; }

  Counter() : Metric(CIRCMETRICS_COUNTER) {}

  void add(std::int64_t amount);
  void write(JsonWriter& json) const override;

 private:
  static constexpr std::size_t kShards = 8;

  struct alignas(64) Shard {
    std::atomic<std::uint64_t> sum{0};  // unsigned: wraps instead of overflowing
  };

  std::array<Shard, kShards> shards_;
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_COUNTER_H_
