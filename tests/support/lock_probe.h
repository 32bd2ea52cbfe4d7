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
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>
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
inline void fork_sleeper(PidPipe& pids) {
  in_child([&] {
    pids.send(getpid());
    return sleep_until_killed();
  });
}

// The descriptors under which this process has the file open.
inline std::vector<int> descriptors_of(const std::string& path) {
  std::vector<int> found;
  char target[4096];
  for (int fd = 0; fd < 1024; ++fd) {
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t size = readlink(link.c_str(), target, sizeof(target));
    if (size > 0 && path == std::string(target, static_cast<std::size_t>(size))) {
      found.push_back(fd);
    }
  }
  return found;
}

// Whether anyone holds a lock on the file.
inline bool is_locked(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    std::abort();
  }
  const bool held = flock(fd, LOCK_EX | LOCK_NB) != 0;
  close(fd);
  return held;
}

// While process 123 waits, /proc/locks has a line "1: -> FLOCK ADVISORY WRITE 123 ...".
inline bool kernel_lists_waiter(pid_t pid) {
  std::ifstream locks("/proc/locks");
  std::string line;
  while (std::getline(locks, line)) {
    std::istringstream words(line);
    std::string number, arrow, kind, advisory, mode;
    pid_t owner = -1;
    words >> number >> arrow >> kind >> advisory >> mode >> owner;
    if (arrow == "->" && kind == "FLOCK" && owner == pid) {
      return true;
    }
  }
  return false;
}

// Whether a thread of the process sleeps for a set time, as it does between two attempts to
// get a store lock. The C library sleeps with this call; ThreadSanitizer's own thread with another.
inline bool has_sleeper(pid_t pid) {
  std::error_code gone;
  const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task", gone);
  for (const auto& task : tasks) {
    long call = -1;
    std::ifstream(task.path() / "syscall") >> call;
    if (call == SYS_clock_nanosleep) {
      return true;
    }
  }
  return false;
}

// Returns true once the process waits for a lock, or false once `got_it` is passed.
inline bool waits_for_lock(pid_t pid, const Signpost& got_it) {
  while (!got_it.is_passed()) {
    if (kernel_lists_waiter(pid) || has_sleeper(pid)) {
      return true;
    }
    sched_yield();
  }
  return false;
}

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
