// Keeps the flushes of a cache apart.
#ifndef QUORVANE_SRC_CACHE_FLUSH_TURN_H_
#define QUORVANE_SRC_CACHE_FLUSH_TURN_H_

#include <atomic>
#include <cstdint>
#include <mutex>

#include "src/process_generation.h"

namespace quorvane {
namespace cache {

// A lock that is held while a store works, so it can't be guarded against forks. Its state is
// the generation of the process whose thread holds it, or 0. A child that finds its parent's
// generation takes the lock: the holder doesn't exist there.
class FlushTurn {
 public:
  using State = std::atomic<std::uint64_t>;

  // Waits for the turn.
  explicit FlushTurn(State& state) : state_(state) {
    while (!(is_taken_ = try_take())) {
      state_.wait(own_, std::memory_order_relaxed);
    }
  }

  // Ask is_taken().
  FlushTurn(State& state, std::try_to_lock_t /*tag*/) : state_(state), is_taken_(try_take()) {}

  ~FlushTurn() {
    if (is_taken_) {
      state_.store(0, std::memory_order_release);
      state_.notify_all();
    }
  }
  FlushTurn(const FlushTurn&) = delete;
  FlushTurn& operator=(const FlushTurn&) = delete;

  bool is_taken() const { return is_taken_; }

 private:
  bool try_take() {
    std::uint64_t seen = state_.load(std::memory_order_relaxed);
    return seen != own_ && state_.compare_exchange_strong(seen, own_, std::memory_order_acquire);
  }

  State& state_;
  const std::uint64_t own_ = process_generation();
  bool is_taken_ = false;
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_FLUSH_TURN_H_
