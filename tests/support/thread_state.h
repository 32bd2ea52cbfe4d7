// The state of a thread of this process, as the kernel reports it.
#ifndef TESTS_SUPPORT_THREAD_STATE_H_
#define TESTS_SUPPORT_THREAD_STATE_H_

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>

namespace test {

// The fields of /proc/self/task/TID/stat from the state on, which is number 3 in proc(5).
// "" once the thread has ended.
std::string stat_from_state(pid_t tid);

bool is_asleep(pid_t tid);

// The CPU time of the thread, in clock ticks.
long computed_ticks(pid_t tid);

// How often the thread has slept.
long sleeps(pid_t tid);

// A thread that runs one function, and whose state can be watched while it does.
class Watched {
 public:
  explicit Watched(std::function<void()> function)
      : thread_([this, function = std::move(function)] {
          tid_ = gettid();
          function();
          done_ = true;
        }) {}
  ~Watched() { join(); }
  Watched(const Watched&) = delete;
  Watched& operator=(const Watched&) = delete;

  // Waits until the thread runs.
  pid_t tid() const {
    while (tid_ == 0) {
      std::this_thread::yield();
    }
    return tid_;
  }

  // Waits until the thread sleeps or has ended.
  void settle() const {
    while (!done_ && !is_asleep(tid())) {
      std::this_thread::yield();
    }
  }

  bool is_done() const { return done_; }

  void join() {
    if (thread_.joinable()) {
      thread_.join();
    }
  }

 private:
  std::atomic<pid_t> tid_{0};
  std::atomic<bool> done_{false};
  std::thread thread_;
};

}  // namespace test

#endif  // TESTS_SUPPORT_THREAD_STATE_H_
