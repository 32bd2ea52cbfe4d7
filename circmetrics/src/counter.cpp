#include "counter.h"

#include "json_writer.h"

namespace circmetrics {

void Counter::add_shared(std::uint64_t amount) {
  const ThreadSlot slot = ThreadSlot::obtained();
  shards_[slot.index()].shared.fetch_add(amount, std::memory_order_relaxed);
}

std::uint64_t Counter::sum() const {
  std::uint64_t sum = 0;
  for (const Shard& shard : shards_) {
    sum +=
        shard.owned.load(std::memory_order_relaxed) + shard.shared.load(std::memory_order_relaxed);
  }
  return sum;
}

void Counter::write(JsonWriter& json) const { json.number(static_cast<std::int64_t>(sum())); }

void Counter::write_kept(JsonWriter& json, std::span<const std::uint64_t> words) const {
  json.number(static_cast<std::int64_t>(words[0]));
}

}  // namespace circmetrics
