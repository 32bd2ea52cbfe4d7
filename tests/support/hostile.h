// For tests that feed a store damaged files, thousands of them in one scenario.
#ifndef TESTS_SUPPORT_HOSTILE_H_
#define TESTS_SUPPORT_HOSTILE_H_

#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "support/log_records.h"

namespace test {

// The records that this scenario logged since the last call.
class LogTail {
 public:
  LogTail() : file_(getenv("QV_LOG_FILE")) {}

  std::vector<std::string> next() {
    std::string text;
    for (std::string line; std::getline(file_, line);) {
      text += line + "\n";
    }
    file_.clear();
    return level_and_message(parse_records(text));
  }

 private:
  std::ifstream file_;
};

// Lets the process grow by no more than `bytes` and what a page table costs.
class GrowthLimit {
 public:
  explicit GrowthLimit([[maybe_unused]] std::size_t bytes) {
#ifndef QV_SANITIZED  // whose runtimes reserve address space as they go
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    constexpr std::size_t slack = 512 * 1024;
    set(pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) + bytes + slack);
#endif
  }
  ~GrowthLimit() { set(RLIM_INFINITY); }
  GrowthLimit(const GrowthLimit&) = delete;
  GrowthLimit& operator=(const GrowthLimit&) = delete;

 private:
  static void set(rlim_t limit) {
    const rlimit now{limit, RLIM_INFINITY};
    setrlimit(RLIMIT_AS, &now);
  }
};

inline std::string changed(std::string bytes, std::size_t offset, const std::string& by) {
  return bytes.replace(offset, by.size(), by);
}

}  // namespace test

#endif  // TESTS_SUPPORT_HOSTILE_H_
