#include "src/cache/lock_wait.h"

#include <sys/sysmacros.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "src/cache/checks.h"

namespace quorvane {
namespace cache {
namespace {

using namespace std::chrono_literals;

constexpr LockWait::Duration kShortestPause = 50us;
constexpr LockWait::Duration kLongestPause = 10ms;

}  // namespace

void LockWait::pause(const std::function<pid_t()>& holder) {
  const auto now = std::chrono::steady_clock::now();
  if (!start_) {
    start_ = now;
  }
  const Duration waited = now - *start_;
  if (waited >= due_) {
    log(due_, holder());
    due_ += interval_;
  }
  const Duration pause = std::clamp(waited / 8, kShortestPause, kLongestPause);
  const timespec time{0, std::chrono::nanoseconds(pause).count()};
  nanosleep(&time, nullptr);  // a signal only brings the next attempt forward
}

void LockWait::log(Duration waited, pid_t holder) const {
  const long seconds = std::chrono::duration_cast<std::chrono::seconds>(waited).count();
  if (holder > 0) {
    QV_LOG(g_module, WARN, "Waiting for cache store lock %s for %ld s, held by process %d",
           path_.c_str(), seconds, holder);
  } else {
    QV_LOG(g_module, WARN, "Waiting for cache store lock %s for %ld s", path_.c_str(), seconds);
  }
}

pid_t flock_holder(const descriptor::FileId& file) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> locks(std::fopen("/proc/locks", "re"),
                                                              &std::fclose);
  if (locks == nullptr) {
    return 0;
  }
  // "1: FLOCK  ADVISORY  WRITE 1234 08:01:5678 0 EOF"; a waiter's line has "->" after the colon.
  char line[256];
  while (std::fgets(line, sizeof(line), locks.get()) != nullptr) {
    int pid = 0;
    unsigned major_number = 0;
    unsigned minor_number = 0;
    unsigned long inode = 0;
    if (std::sscanf(line, "%*s FLOCK %*s %*s %d %x:%x:%lu", &pid, &major_number, &minor_number,
                    &inode) == 4 &&
        inode == file.inode && makedev(major_number, minor_number) == file.device) {
      return pid;
    }
  }
  return 0;
}

}  // namespace cache
}  // namespace quorvane
