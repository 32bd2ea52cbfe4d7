#include "src/remote_stats.h"

#include "src/records.h"

namespace quorvane {
namespace remote {
namespace {

void count(qv_stats_handle_t counter, std::int64_t amount) {
  if (amount != 0) {
    qv_stats_counter_inc(counter, amount);
  }
}

}  // namespace

RemoteStats::RemoteStats()
    : hits_(qv_stats_create_counter(g_module.get(), "remote_hits")),
      misses_(qv_stats_create_counter(g_module.get(), "remote_misses")),
      errors_(qv_stats_create_counter(g_module.get(), "remote_errors")),
      skipped_(qv_stats_create_counter(g_module.get(), "remote_skipped")),
      microseconds_(qv_stats_create_histogram(g_module.get(), "remote_microseconds")) {}

void RemoteStats::add(const LookupCounts& counts, std::chrono::steady_clock::duration took) const {
  count(hits_, counts.hits);
  count(misses_, counts.misses);
  count(errors_, counts.errors);
  count(skipped_, counts.skipped);
  if (counts.hits + counts.misses + counts.errors != 0) {
    qv_stats_hist_insert_fast(microseconds_, std::chrono::nanoseconds(took).count(), -3, 1);
  }
}

}  // namespace remote
}  // namespace quorvane
