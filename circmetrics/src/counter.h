// A sum that many threads add to.
#ifndef CIRCMETRICS_SRC_COUNTER_H_
#define CIRCMETRICS_SRC_COUNTER_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include "circmetrics.h"
#include "kept_words.h"
#include "metric.h"
#include "thread_slot.h"
#include "tsan_mark.h"

namespace circmetrics {

// The sum over shards: threads add to different cache lines, so they don't wait for
// each other. Thread-safe.
class Counter final : public Metric {
 public:
  static bool is_type(int type) { return type == CIRCMETRICS_COUNTER; }

  Counter() : Metric(CIRCMETRICS_COUNTER) {}

  void add(std::int64_t amount) {
    const auto summand = static_cast<std::uint64_t>(amount);
    const ThreadSlot slot = ThreadSlot::of_this_thread();
    if (slot.is_owned()) [[likely]] {
      add_owned(slot.index(), summand);
    } else {
      add_shared(summand);
    }
  }

  void write(JsonWriter& json) const override;
  void keep(KeptWords& words) const override { words.add(sum()); }
  void write_kept(JsonWriter& json, std::span<const std::uint64_t> words) const override;

 private:
  struct alignas(64) Shard {              // unsigned: wraps instead of overflowing
    std::atomic<std::uint64_t> owned{0};  // written by the slot's owner alone
    std::atomic<std::uint64_t> shared{0};
    TsanMark owner_wrote;  // set whenever `owned` is written
  };

  // In one instruction: an addition by a signal handler of this thread would be lost if it
  // came between a load and a store.
  void add_owned(std::size_t slot, std::uint64_t amount) {
    std::atomic<std::uint64_t>& sum = shards_[slot].owned;
    shards_[slot].owner_wrote.set();
#ifdef __x86_64__
    asm("addq %1, %0" : "+m"(sum) : "er"(amount) : "cc");
#else
    sum.fetch_add(amount, std::memory_order_relaxed);
#endif
  }
  void add_shared(std::uint64_t amount);
  std::uint64_t sum() const;

  std::array<Shard, ThreadSlot::kCount> shards_;
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_COUNTER_H_
