// Asks the kernel who holds a lock file and who waits for it, and lets processes signal each
// other.
#ifndef TESTS_SUPPORT_LOCK_PROBE_H_
#define TESTS_SUPPORT_LOCK_PROBE_H_

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/processes.h"

namespace test {

// A pipe whose ends are closed with the object.
struct Pipe {
  Pipe() {
    if (pipe2(ends, O_CLOEXEC) != 0) {
      std::abort();
    }
  }
  ~Pipe() {
    close(ends[0]);
    close(ends[1]);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int ends[2] = {-1, -1};
};

// Passed once, by any thread or by any process that shares it through fork.
class Signpost {
 public:
  void pass() {
    if (write(pipe_.ends[1], "x", 1) != 1) {
      std::abort();
    }
  }
  bool is_passed() const { return is_passed_within(0); }
  void await() const { is_passed_within(-1); }

 private:
  bool is_passed_within(int timeout) const {
    pollfd entry{pipe_.ends[0], POLLIN, 0};
    return poll(&entry, 1, timeout) == 1;
  }

  Pipe pipe_;
};

// Passes the id of a process to another process.
class PidPipe {
 public:
  void send(pid_t pid) {
    if (write(pipe_.ends[1], &pid, sizeof(pid)) != sizeof(pid)) {
      std::abort();
    }
  }
  pid_t receive() const {
    pid_t pid = -1;
    if (read(pipe_.ends[0], &pid, sizeof(pid)) != sizeof(pid)) {
      std::abort();
    }
    return pid;
  }

 private:
  Pipe pipe_;
};

// Sleeps until a signal kills the process.
[[noreturn]] inline int sleep_until_killed() {
  for (;;) {
    pause();
  }
}

// Forks a child that sends its id and then sleeps until it is killed.
void fork_sleeper(PidPipe& pids);

// The descriptors under which this process has the file open.
std::vector<int> descriptors_of(const std::string& path);

// Whether anyone holds a lock on the file.
bool is_locked(const std::string& path);

// While process 123 waits, /proc/locks has a line "1: -> FLOCK ADVISORY WRITE 123 ...".
bool kernel_lists_waiter(pid_t pid);

// Whether a thread of the process sleeps for a set time, as it does between two attempts to
// get a store lock. The C library sleeps with this call; ThreadSanitizer's own thread with another.
bool has_sleeper(pid_t pid);

// Returns true once the process waits for a lock, or false once `got_it` is passed.
bool waits_for_lock(pid_t pid, const Signpost& got_it);

// Prints whether process `pid` waits for a lock, and whether `got_it` is passed before `release`
// (it must not be) and after it. `release` waits until the waiter has ended.
template <typename Release>
void print_wait(pid_t pid, const Signpost& got_it, Release release) {
  const bool waits = waits_for_lock(pid, got_it);
  const bool passed_early = got_it.is_passed();
  release();
  std::printf("%d %d %d", waits, passed_early, got_it.is_passed());
}

}  // namespace test

#endif  // TESTS_SUPPORT_LOCK_PROBE_H_
