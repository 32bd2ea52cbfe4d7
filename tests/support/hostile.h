// For tests that feed a store thousands of damaged files in one scenario.
#ifndef TESTS_SUPPORT_HOSTILE_H_
#define TESTS_SUPPORT_HOSTILE_H_

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "support/log_records.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"

namespace test {

// Returns the records that this scenario has logged since the last call.
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

// Limits the growth of the process to `bytes` and some slack for page tables.
class GrowthLimit {
 public:
  explicit GrowthLimit([[maybe_unused]] std::size_t bytes) {
#ifndef QV_SANITIZED  // a sanitizer may reserve address space at any time
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

// The entries of the intact files.
inline const std::vector<Entry> kHostileEntries{{"b", {"2", "three"}},
                                                {"aa", {std::string(40, 'x')}},
                                                {"some key", {"1", "22", "333"}},
                                                {"some other key", {std::string(200, 'y'), "z"}}};

inline std::string changed(std::string bytes, std::size_t offset, const std::string& by) {
  return bytes.replace(offset, by.size(), by);
}

// Runs a scenario in an empty root.
inline Ran run_hostile(const std::string& scenario, const Arguments& arguments = {}) {
  return StoreRoot().run(scenario, arguments, "INFO");
}

// Ends a scenario: prints how many cases its checker has checked.
template <typename Checker>
int print_checked(const Checker& checker) {
  std::printf("%d checked", checker.checked());
  return 0;
}

// Expects exactly this many cases, and no complaint.
inline void expect_checked(const Ran& ran, std::size_t cases) {
  EXPECT_TRUE(ran.exited_with(0)) << ran.status;
  EXPECT_EQ(ran.out, std::to_string(cases) + " checked");
}

}  // namespace test

#endif  // TESTS_SUPPORT_HOSTILE_H_
