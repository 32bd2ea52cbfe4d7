#include "qvutil/processes/process.h"

#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

std::string first_line(const std::string& path) {
  std::string line;
  std::getline(std::ifstream(path), line, '\0');
  return line;
}

double seconds_of(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// The fields of /proc/PID/stat from the third on: the second one, the name, may hold blanks and
// brackets.
std::istringstream fields_behind_name(const std::string& stat) {
  const std::size_t end = stat.rfind(')');
  return std::istringstream(end == std::string::npos ? "" : stat.substr(end + 1));
}

double start_of(std::istringstream fields) {
  constexpr int kStartField = 22;
  std::string field;
  for (int number = 3; number < kStartField; ++number) {
    fields >> field;
  }
  double ticks = 0;
  if (!(fields >> ticks)) {
    return 0;
  }
  const double boot = seconds_of(CLOCK_REALTIME) - seconds_of(CLOCK_BOOTTIME);
  return boot + ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::string program_of(const std::string& directory, const std::string& stat) {
  std::array<char, 4096> target;
  const ssize_t size = readlink((directory + "/exe").c_str(), target.data(), target.size());
  if (size > 0) {
    const std::string path(target.data(), static_cast<std::size_t>(size));
    return path.substr(path.rfind('/') + 1);
  }
  const std::size_t begin = stat.find('(');
  const std::size_t end = stat.rfind(')');
  return begin < end && end != std::string::npos ? stat.substr(begin + 1, end - begin - 1) : "";
}

bool is_thread(const std::string& directory, pid_t pid) {
  std::ifstream status(directory + "/status");
  for (std::string word; status >> word;) {
    if (word == "Tgid:") {
      pid_t leader = 0;
      return status >> leader && leader != pid;
    }
  }
  return false;
}

}  // namespace

std::optional<Process> living_process(pid_t pid) {
  // /proc may hide the processes of other users; kill doesn't.
  if (pid <= 0 || (kill(pid, 0) != 0 && errno == ESRCH)) {
    return std::nullopt;
  }
  const std::string directory = "/proc/" + std::to_string(pid);
  const std::string stat = first_line(directory + "/stat");
  std::string state;
  fields_behind_name(stat) >> state;
  if (state == "Z" || state == "X" || is_thread(directory, pid)) {
    return std::nullopt;
  }
  return Process{program_of(directory, stat), start_of(fields_behind_name(stat))};
}

void lock_file(Console& console, int fd, int operation, const std::string& path) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point patience = Clock::now() + std::chrono::seconds(1);
  int how = operation | LOCK_NB;
  while (flock(fd, how) != 0) {
    if (errno == EWOULDBLOCK && Clock::now() < patience) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    } else if (errno == EWOULDBLOCK) {
      console.err() << "qvutil: waiting for the lock on " << shown(path) << std::endl;
      how = operation;
    } else if (errno != EINTR) {
      throw failure_of("can't lock " + shown(path), errno);
    }
  }
}

}  // namespace quorvane::tool
