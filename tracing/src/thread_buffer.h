// The lines of one thread that aren't in the file yet.
#ifndef QUORVANE_TRACING_SRC_THREAD_BUFFER_H_
#define QUORVANE_TRACING_SRC_THREAD_BUFFER_H_

#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <string_view>

#include "src/line.h"

namespace quorvane {
namespace tracing {

// Its thread adds lines without a lock. Whoever has the turn to write takes what is there, of
// this thread or another.
class ThreadBuffer {
 public:
  // Any thread. False if it has a thread.
  bool try_own(pid_t process) {
    bool expected = false;
    if (is_owned_.load(std::memory_order_relaxed) ||
        !is_owned_.compare_exchange_strong(expected, true, std::memory_order_acquire)) {
      return false;
    }
    start_ = LineStart(process, gettid());
    return true;
  }

  // By its thread, when nothing is left to take.
  void disown() { is_owned_.store(false, std::memory_order_release); }

  // By its thread.
  bool has_room() const { return filled_.load(std::memory_order_relaxed) + kMostLine <= kBytes; }

  // By its thread, if there is room.
  void add(const Span& span) {
    const std::size_t filled = filled_.load(std::memory_order_relaxed);
    const char* const end = write_line(bytes_ + filled, start_, span);
    filled_.store(static_cast<std::size_t>(end - bytes_), std::memory_order_release);
  }

  // With the turn: the lines that nobody has taken.
  std::string_view take() {
    const std::size_t first = taken_;
    taken_ = filled_.load(std::memory_order_acquire);
    return {bytes_ + first, taken_ - first};
  }

  // With the turn, by its thread, once all is written.
  void clear() {
    taken_ = 0;
    filled_.store(0, std::memory_order_relaxed);
  }

 private:
  static constexpr std::size_t kBytes = 65'536 - sizeof(LineStart) - 3 * sizeof(std::size_t);

  std::atomic<bool> is_owned_;
  std::atomic<std::size_t> filled_;
  std::size_t taken_;
  LineStart start_;
  char bytes_[kBytes];
};
static_assert(sizeof(ThreadBuffer) == 65'536);  // whole pages: those of threads stay apart

}  // namespace tracing
}  // namespace quorvane

#endif  // QUORVANE_TRACING_SRC_THREAD_BUFFER_H_
