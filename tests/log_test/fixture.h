// What the tests of the log share: levels, and outlets whose writes they can read.
#ifndef TESTS_LOG_TEST_FIXTURE_H_
#define TESTS_LOG_TEST_FIXTURE_H_

#include <gtest/gtest.h>
#include <quorvane/log.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace log_test {

constexpr std::size_t kRecordSize = 4096;

inline const std::vector<std::string> kNames{"OFF",   "ERROR", "WARN", "INFO",
                                             "TRACE", "DEBUG", "ALL"};

inline qv_log_level_t level_of(int value) { return static_cast<qv_log_level_t>(value); }

inline void log_to(quorvane::logging::LoggingModuleData& outlet, qv_log_level_t level,
                   const char* format, ...) __attribute__((format(printf, 3, 4)));

inline void log_to(quorvane::logging::LoggingModuleData& outlet, qv_log_level_t level,
                   const char* format, ...) {
  va_list args;
  va_start(args, format);
  quorvane::logging::logv_do(outlet, level, format, args);
  va_end(args);
}

// A descriptor that keeps writes apart, so that a test notices a record in two writes.
class Writes {
 public:
  Writes() {
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends_.data()) != 0) {
      throw std::runtime_error("socketpair");
    }
  }
  ~Writes() {
    close(ends_[0]);
    close(ends_[1]);
  }
  Writes(const Writes&) = delete;
  Writes& operator=(const Writes&) = delete;

  int fd() const { return ends_[0]; }

  // The bytes of each write so far.
  std::vector<std::string> take() {
    std::vector<std::string> writes;
    std::array<char, 2 * kRecordSize> bytes;
    ssize_t size;
    while ((size = recv(ends_[1], bytes.data(), bytes.size(), MSG_DONTWAIT)) > 0) {
      writes.emplace_back(bytes.data(), static_cast<std::size_t>(size));
    }
    return writes;
  }

  std::string take_one() {
    const std::vector<std::string> writes = take();
    EXPECT_EQ(writes.size(), 1U);
    return writes.empty() ? "" : writes.front();
  }

 private:
  std::array<int, 2> ends_{};
};

}  // namespace log_test

#endif  // TESTS_LOG_TEST_FIXTURE_H_
