#include "src/cache/lock_watch.h"

#include <signal.h>
#include <sys/sysmacros.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <utility>

#include "src/cache/checks.h"

namespace quorvane {
namespace cache {
namespace {

// The program's signals are for its own threads.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

 private:
  sigset_t before_;
};

}  // namespace

LockWatch::LockWatch(const std::string& path, std::function<pid_t()> holder, Seconds first,
                     Seconds interval)
    : path_(path), holder_(std::move(holder)) {
  const AllSignalsBlocked blocked;
  try {
    thread_ = std::thread(&LockWatch::run, this, first, interval);
  } catch (const std::exception&) {  // no thread, or no memory for one
  }
}

LockWatch::~LockWatch() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
    ended_changed_.notify_one();
  }
  if (thread_.joinable()) {
    thread_.join();
  }
}

void LockWatch::run(Seconds first, Seconds interval) {
  const auto start = std::chrono::steady_clock::now();
  std::unique_lock<std::mutex> lock(mutex_);
  for (Seconds waited = first;; waited += interval) {
    const auto due =
        start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(waited);
    if (ended_changed_.wait_until(lock, due, [this] { return ended_; })) {
      return;
    }
    log_wait(waited);
  }
}

void LockWatch::log_wait(Seconds waited) const {
  const auto seconds = static_cast<long>(waited.count());
  if (const pid_t holder = holder_(); holder > 0) {
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
  // "1: FLOCK  ADVISORY  WRITE 1234 08:01:5678 0 EOF"; a waiter has "->" after the colon.
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
