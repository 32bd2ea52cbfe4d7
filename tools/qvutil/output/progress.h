// The progress of what takes longer than a second.
#ifndef TOOLS_QVUTIL_OUTPUT_PROGRESS_H_
#define TOOLS_QVUTIL_OUTPUT_PROGRESS_H_

#include <chrono>
#include <cstdint>
#include <string>

#include "qvutil/output/console.h"

namespace quorvane::tool {

// A line on standard error, if that is a terminal: how much is done, at which rate, and the
// time left. It appears after a second, is renewed at most ten times a second, and disappears
// at the end.
class Progress {
 public:
  // `what` is what the command does: "verifying demo". `total` in bytes; 0: unknown.
  Progress(Console& console, std::string what, std::uint64_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // So many bytes are done by now; fewer than before when they are done once more. Cheap: may be
  // called for each entry.
  void at(std::uint64_t done) {
    done += before_;
    if (shows_ && (done < done_ || done - done_ >= kStep)) {
      update(done);
    }
  }

  // What is told from now on comes on top of so many bytes.
  void go_on_from(std::uint64_t bytes) { before_ = bytes; }

  // What is told from now on is done so many times, by as many threads.
  void stand_for(std::uint64_t times) { times_ = times; }

  // Never shows.
  static Progress none(Console& console) { return Progress(console); }

  // The line for `done` bytes after `seconds`.
  static std::string line(const std::string& what, std::uint64_t done, std::uint64_t total,
                          double seconds);

 private:
  static constexpr std::uint64_t kStep = 65536;
  using Clock = std::chrono::steady_clock;

  explicit Progress(Console& console) : console_(console), total_(0), shows_(false) {}

  void update(std::uint64_t done);

  Console& console_;
  std::string what_;
  std::uint64_t total_;
  bool shows_;
  std::uint64_t times_ = 1;
  std::uint64_t before_ = 0;
  std::uint64_t done_ = 0;  // when the clock was read last
  Clock::time_point start_ = Clock::now();
  Clock::time_point next_ = start_ + std::chrono::seconds(1);
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_OUTPUT_PROGRESS_H_
