#include "counter.h"

#include "json_writer.h"

namespace circmetrics {
namespace {

std::atomic<unsigned> g_threads{0};

// The number of this thread; 0 until it first adds to a counter. Initial-exec: one load
// instead of a call. A library loaded later may use so few bytes of it.
thread_local unsigned t_thread __attribute__((tls_model("initial-exec"))) = 0;

unsigned number_this_thread() {
  do {
    t_thread = g_threads.fetch_add(1, std::memory_order_relaxed) + 1;
  } while (t_thread == 0);
  return t_thread;
}

}  // namespace

void Counter::add(std::int64_t amount) {
  const unsigned thread = t_thread != 0 ? t_thread : number_this_thread();
  shards_[thread % kShards].sum.fetch_add(static_cast<std::uint64_t>(amount),
                                          std::memory_order_relaxed);
}

void Counter::write(JsonWriter& json) const {
  std::uint64_t sum = 0;
  for (const Shard& shard : shards_) {
    sum += shard.sum.load(std::memory_order_relaxed);
  }
  json.number(static_cast<std::int64_t>(sum));
}

}  // namespace circmetrics
