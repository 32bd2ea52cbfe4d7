// The process's statistics module, for functions that use it only if it exists.
#ifndef QUORVANE_SRC_STATS_INSTANCE_H_
#define QUORVANE_SRC_STATS_INSTANCE_H_

#include <quorvane/stats.h>

#include <atomic>

namespace quorvane {
namespace stats {

// Null until statistics are on. Never goes back to null.
extern std::atomic<CircMetricsModule*> g_instance;

}  // namespace stats
}  // namespace quorvane

#endif  // QUORVANE_SRC_STATS_INSTANCE_H_
