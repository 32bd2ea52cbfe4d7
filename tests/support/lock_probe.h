// Who holds a lock file and who waits for it, asked of the kernel.
#ifndef TESTS_SUPPORT_LOCK_PROBE_H_
#define TESTS_SUPPORT_LOCK_PROBE_H_

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

namespace test {

// Passed once, by any thread or process that shares it through fork.
class Signpost {
 public:
  Signpost() {
    if (pipe2(fds_, O_CLOEXEC) != 0) {
      std::abort();
    }
  }
  ~Signpost() {
    close(fds_[0]);
    close(fds_[1]);
  }
  Signpost(const Signpost&) = delete;
  Signpost& operator=(const Signpost&) = delete;

  void pass() {
    if (write(fds_[1], "x", 1) != 1) {
      std::abort();
    }
  }
  bool is_passed() const { return is_passed_within(0); }
  void await() const { is_passed_within(-1); }

 private:
  bool is_passed_within(int timeout) const {
    pollfd entry{fds_[0], POLLIN, 0};
    return poll(&entry, 1, timeout) == 1;
  }

  int fds_[2] = {-1, -1};
};

// Whether a lock is held on the file, by anyone.
inline bool is_locked(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    std::abort();
  }
  const bool held = flock(fd, LOCK_EX | LOCK_NB) != 0;
  close(fd);
  return held;
}

// /proc/locks has a line "1: -> FLOCK ADVISORY WRITE 123 ..." for process 123
// when it waits.
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

// Whether a thread of the process sleeps for a while, as between two attempts to get a
// store lock.
inline bool has_sleeper(pid_t pid) {
  std::error_code gone;
  const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task", gone);
  for (const auto& task : tasks) {
    long call = -1;
    std::ifstream(task.path() / "syscall") >> call;
    if (call == SYS_clock_nanosleep || call == SYS_nanosleep) {
      return true;
    }
  }
  return false;
}

// Waits until the process waits for a lock (true), or `got_it` shows that it needn't
// (false).
inline bool waits_for_lock(pid_t pid, const Signpost& got_it) {
  while (!got_it.is_passed()) {
    if (kernel_lists_waiter(pid) || has_sleeper(pid)) {
      return true;
    }
    sched_yield();
  }
  return false;
}

}  // namespace test

#endif  // TESTS_SUPPORT_LOCK_PROBE_H_
