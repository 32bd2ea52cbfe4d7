// Runs a function once in a process, in the thread that comes first.
#ifndef QUORVANE_SRC_ONCE_H_
#define QUORVANE_SRC_ONCE_H_

#include <atomic>
#include <cstdint>
#include <limits>

#include "src/process_generation.h"

namespace quorvane {

// Unlike the guard of a local static, it survives a fork while another thread runs the
// function: the child, which doesn't have that thread, runs the function again. Unlike
// std::once_flag, it lets ThreadSanitizer see the order. An exception of the function
// reaches the caller that ran the function, and the next caller runs it again. The function
// must tolerate a second run, wherever the first was cut short.
class Once {
 public:
  // Returns once the function has run. Any thread; costs one load afterwards.
  template <typename Function>
  void run(const Function& function) {
    if (!has_run()) {
      run_or_wait(function);
    }
  }

  // Once it returns true, what the function wrote can be read. Any thread; costs one load.
  bool has_run() const { return state_.load(std::memory_order_acquire) == kDone; }

 private:
  using State = std::uint64_t;  // 0, the generation of the process that runs it, or kDone
  static constexpr State kDone = std::numeric_limits<State>::max();

  template <typename Function>
  void run_or_wait(const Function& function) {
    const State running = process_generation();
    while (!has_run()) {
      State state = state_.load(std::memory_order_relaxed);
      if (state == running) {
        state_.wait(running, std::memory_order_relaxed);
      } else if (state != kDone &&
                 state_.compare_exchange_strong(state, running, std::memory_order_acquire)) {
        try {
          function();
        } catch (...) {
          leave(0);
          throw;
        }
        leave(kDone);
        return;
      }
    }
  }

  void leave(State state) {
    state_.store(state, std::memory_order_release);
    state_.notify_all();
  }

  std::atomic<State> state_{0};
};

}  // namespace quorvane

#endif  // QUORVANE_SRC_ONCE_H_
