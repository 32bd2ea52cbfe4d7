#include "support/lock_probe.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace test {

void fork_sleeper(PidPipe& pids) {
  in_child([&] {
    pids.send(getpid());
    return sleep_until_killed();
  });
}

std::vector<int> descriptors_of(const std::string& path) {
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

bool is_locked(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    std::abort();
  }
  const bool held = flock(fd, LOCK_EX | LOCK_NB) != 0;
  close(fd);
  return held;
}

bool kernel_lists_waiter(pid_t pid) {
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

bool has_sleeper(pid_t pid) {
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

bool waits_for_lock(pid_t pid, const Signpost& got_it) {
  while (!got_it.is_passed()) {
    if (kernel_lists_waiter(pid) || has_sleeper(pid)) {
      return true;
    }
    sched_yield();
  }
  return false;
}

}  // namespace test
