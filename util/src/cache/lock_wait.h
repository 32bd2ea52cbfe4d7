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

// One wait: its pauses between attempts, and the records that tell of it. Attempts and
// pauses, and no call that blocks: only so the waiting thread can log, without a thread
// or a signal of the library's in a process that isn't its own.
// Thread-safety: the waiting thread alone.
class LockWait {
 public:
  using Duration = std::chrono::steady_clock::duration;

  // `path`, of the lock file, must outlive the wait.
  explicit LockWait(const std::string& path, Duration first = std::chrono::seconds(5),
                    Duration interval = std::chrono::minutes(1))
      : path_(path), due_(first), interval_(interval) {}

  // After an attempt that failed: sleeps for an eighth of the time waited so
  // far, 10 ms at most. When that time reaches `first`, and then once every `interval`,
  // logs one WARN record with the lock file and the process that `holder` names, unless
  // that is 0.
  void pause(const std::function<pid_t()>& holder);

 private:
  void log(Duration waited, pid_t holder) const;

  const std::string& path_;
  Duration due_;
  const Duration interval_;
  std::optional<std::chrono::steady_clock::time_point> start_;
};

// The process that holds a flock on the file, as /proc/locks lists it; 0 when it
// doesn't.
pid_t flock_holder(const descriptor::FileId& file);

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_LOCK_WAIT_H_
