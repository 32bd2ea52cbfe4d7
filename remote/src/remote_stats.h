// What the remote stores of a process count.
#ifndef QUORVANE_REMOTE_SRC_REMOTE_STATS_H_
#define QUORVANE_REMOTE_SRC_REMOTE_STATS_H_

#include <quorvane/stats.h>

#include <chrono>
#include <cstdint>

namespace quorvane {
namespace remote {

// Look-ups that came to the servers. Each counts as a hit, a miss, an error or a skipped one.
struct LookupCounts {
  std::int64_t hits = 0;
  std::int64_t misses = 0;
  std::int64_t errors = 0;   // no answer, or an error for an answer
  std::int64_t skipped = 0;  // not asked, since the server didn't answer before
};

// The metrics "remote_..." of the namespace cache/remote. All stores of a process share them. Any
// thread; a child of fork counts in its copy.
class RemoteStats {
 public:
  // The first one in a process sets statistics up.
  RemoteStats();

  // `took`: the time of the round trip, or of all at once when there were several.
  void add(const LookupCounts& counts, std::chrono::steady_clock::duration took) const;

 private:
  qv_stats_handle_t hits_;
  qv_stats_handle_t misses_;
  qv_stats_handle_t errors_;
  qv_stats_handle_t skipped_;
  qv_stats_handle_t microseconds_;
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_REMOTE_STATS_H_
