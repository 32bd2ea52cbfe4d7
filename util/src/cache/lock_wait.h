// The wait for a store lock.
#ifndef QUORVANE_SRC_CACHE_LOCK_WAIT_H_
#define QUORVANE_SRC_CACHE_LOCK_WAIT_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "src/descriptor.h"

namespace quorvane {
namespace cache {

// One wait: the pauses between its attempts, and the records that report it. The wait is
// polled because a thread in a blocking call can't log, and a library should add neither
// threads nor signals to its host process.
// Thread-safety: only the waiting thread uses it.
class LockWait {
 public:
  using Duration = std::chrono::steady_clock::duration;

  // `path` is the lock file's and must outlive the wait.
  explicit LockWait(const std::string& path, Duration first = std::chrono::seconds(5),
                    Duration interval = std::chrono::minutes(1))
      : path_(path), due_(first), interval_(interval) {}

  // Call it after a failed attempt. Sleeps for an eighth of the time waited so far, but for
  // 50 us to 10 ms. Logs a WARN record when that time reaches `first`, and then once every
  // `interval`. The record names the lock file and, unless it is 0, the process that `holder`
  // returns.
  void pause(const std::function<pid_t()>& holder);

 private:
  void log(Duration waited, pid_t holder) const;

  const std::string& path_;
  Duration due_;
  const Duration interval_;
  std::optional<std::chrono::steady_clock::time_point> start_;
};

// The process that holds a flock on the file, according to /proc/locks; 0 if it lists
// none.
pid_t flock_holder(const descriptor::FileId& file);

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_LOCK_WAIT_H_
