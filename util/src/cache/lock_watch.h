// Says in the log that a lock is being waited for.
#ifndef QUORVANE_SRC_CACHE_LOCK_WATCH_H_
#define QUORVANE_SRC_CACHE_LOCK_WATCH_H_

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "src/descriptor.h"

namespace quorvane {
namespace cache {

// Lives as long as the wait does. A thread of its own logs, since the waiting thread
// sleeps in the kernel: one WARN record after `first`, then one every `interval`, with
// the lock file and, where the kernel tells, the process that holds it. Without memory
// or a thread the wait is silent.
class LockWatch {
 public:
  using Seconds = std::chrono::duration<double>;

  // `path` must outlive the watch. `holder` gives the id of a process, or 0; the thread
  // calls it.
  LockWatch(const std::string& path, std::function<pid_t()> holder,
            Seconds first = std::chrono::seconds(5), Seconds interval = std::chrono::minutes(1));
  ~LockWatch();
  LockWatch(const LockWatch&) = delete;
  LockWatch& operator=(const LockWatch&) = delete;

 private:
  void run(Seconds first, Seconds interval);
  void log_wait(Seconds waited) const;

  const std::string& path_;
  const std::function<pid_t()> holder_;
  std::mutex mutex_;
  std::condition_variable ended_changed_;
  bool ended_ = false;
  std::thread thread_;
};

// The process that holds a flock on the file, as /proc/locks lists it; 0 when it
// doesn't.
pid_t flock_holder(const descriptor::FileId& file);

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_LOCK_WATCH_H_
