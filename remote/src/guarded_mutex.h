// A mutex that no child of fork finds locked.
#ifndef QUORVANE_REMOTE_SRC_GUARDED_MUTEX_H_
#define QUORVANE_REMOTE_SRC_GUARDED_MUTEX_H_

#include <mutex>

#include "src/fork_guard.h"

namespace quorvane {
namespace remote {

// Registers a mutex with the fork guard as long as it exists. Lock it with fork_guard::Lock.
class GuardedMutex {
 public:
  GuardedMutex() noexcept { fork_guard::add(mutex_); }
  ~GuardedMutex() { fork_guard::remove(mutex_); }
  GuardedMutex(const GuardedMutex&) = delete;
  GuardedMutex& operator=(const GuardedMutex&) = delete;

  std::mutex& get() { return mutex_; }

 private:
  std::mutex mutex_;
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_GUARDED_MUTEX_H_
