#include "src/cache/cache_stats.h"

#include <map>
#include <mutex>
#include <vector>

#include <quorvane/module.h>

#include "src/cache/checks.h"
#include "src/fork_guard.h"

namespace quorvane {
namespace cache {
namespace {

// Never destroyed: caches may be used in exit handlers.
struct Registry {
  Registry() { fork_guard::add(mutex); }

  std::mutex mutex;
  std::map<std::string, CacheStats> by_name;
};

Registry* registry() {
  static constinit Once once;
  static constinit Registry* all = nullptr;
  once.run([] { all = new Registry; });
  return all;
}

}  // namespace

CacheStats& CacheStats::of(const std::string& name) {
  Registry* const all = registry();
  CacheStats* stats = nullptr;
  {
    const fork_guard::Lock lock(all->mutex);
    stats = &all->by_name[name];
  }
  // Not under the mutex: the first metric of a process sets statistics up.
  stats->once_.run([&] { stats->make(name); });
  return *stats;
}

// The module only spells the namespace. It isn't registered: two threads may be here for two
// names at a time.
void CacheStats::make(const std::string& name) {
  std::vector<std::string> routes{"cache/" + name};
  module::Module scope = *g_module.get();
  scope.routes = &routes;
  hits_ = qv_stats_create_counter(&scope, "hits");
  misses_ = qv_stats_create_counter(&scope, "misses");
  kept_ = qv_stats_create_counter(&scope, "kept");
  dropped_ = qv_stats_create_counter(&scope, "dropped");
  open_ = qv_stats_create_histogram(&scope, "open_us");
  lock_wait_ = qv_stats_create_histogram(&scope, "lock_wait_us");
  qv_stats_create_gauge_int64(&scope, "entries", &entries_);
  qv_stats_create_gauge_int64(&scope, "bytes", &bytes_);
}

void CacheStats::add_time(qv_stats_handle_t histogram, std::int64_t nanoseconds) {
  qv_stats_hist_insert_fast(histogram, nanoseconds, -3, 1);
}

void CacheStats::count_cleaned(std::uint64_t kept, std::uint64_t dropped) const {
  qv_stats_counter_inc(kept_, static_cast<std::int64_t>(kept));
  qv_stats_counter_inc(dropped_, static_cast<std::int64_t>(dropped));
}

void CacheStats::set_size(std::uint64_t entries, std::uint64_t bytes) {
  std::atomic_ref(entries_).store(static_cast<std::int64_t>(entries), std::memory_order_relaxed);
  std::atomic_ref(bytes_).store(static_cast<std::int64_t>(bytes), std::memory_order_relaxed);
}

}  // namespace cache
}  // namespace quorvane
