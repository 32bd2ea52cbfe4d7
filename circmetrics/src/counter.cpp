#include "counter.h"

#include "json_writer.h"

namespace circmetrics {

void Counter::add_shared(std::uint64_t amount) {
  const ThreadSlot slot = ThreadSlot::obtained();
  shards_[slot.index()].shared.fetch_add(amount, std::memory_order_relaxed);
}

void Counter::write(JsonWriter& json) const {
  std::uint64_t sum = 0;
  for (const Shard& shard : shards_) {
    sum +=
        shard.owned.load(std::memory_order_relaxed) + shard.shared.load(std::memory_order_relaxed);
  }
  json.number(static_cast<std::int64_t>(sum));
}

}  // namespace circmetrics
