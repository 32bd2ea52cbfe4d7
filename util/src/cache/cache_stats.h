// The statistics of one cache that is asked key by key.
#ifndef QUORVANE_SRC_CACHE_CACHE_STATS_H_
#define QUORVANE_SRC_CACHE_CACHE_STATS_H_

#include <atomic>
#include <cstdint>
#include <string>

#include <quorvane/stats.h>

#include "src/once.h"

namespace quorvane {
namespace cache {

// The metrics of the namespace "cache/NAME". A cache and its store share them if they have
// the same name. Lives until the process ends, since the recorder reads the gauges.
// Thread-safety: any thread. Fork-safety: a child counts in its copy.
class CacheStats {
 public:
  // Makes the metrics when a name comes for the first time. Throws std::bad_alloc.
  static CacheStats& of(const std::string& name);

  CacheStats() = default;
  CacheStats(const CacheStats&) = delete;
  CacheStats& operator=(const CacheStats&) = delete;

  void count_lookup(bool is_hit) const { qv_stats_counter_inc(is_hit ? hits_ : misses_, 1); }
  void add_open(std::int64_t nanoseconds) const { add_time(open_, nanoseconds); }
  void add_lock_wait(std::int64_t nanoseconds) const { add_time(lock_wait_, nanoseconds); }
  void count_cleaned(std::uint64_t kept, std::uint64_t dropped) const;
  // Whether anybody reads what is set here.
  bool is_captured() const { return hits_ != QV_STATS_INVALID_HANDLE; }
  void set_size(std::uint64_t entries, std::uint64_t bytes);

 private:
  void make(const std::string& name);
  static void add_time(qv_stats_handle_t histogram, std::int64_t nanoseconds);

  Once once_;
  qv_stats_handle_t hits_ = QV_STATS_INVALID_HANDLE;
  qv_stats_handle_t misses_ = QV_STATS_INVALID_HANDLE;
  qv_stats_handle_t open_ = QV_STATS_INVALID_HANDLE;
  qv_stats_handle_t lock_wait_ = QV_STATS_INVALID_HANDLE;
  qv_stats_handle_t kept_ = QV_STATS_INVALID_HANDLE;
  qv_stats_handle_t dropped_ = QV_STATS_INVALID_HANDLE;
  std::int64_t entries_ = 0;  // the recorder reads both at each report
  std::int64_t bytes_ = 0;
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_CACHE_STATS_H_
