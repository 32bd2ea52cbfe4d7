// A thread's turn with the store lock.
#ifndef QUORVANE_SRC_CACHE_INDEXED_STORE_TURN_H_
#define QUORVANE_SRC_CACHE_INDEXED_STORE_TURN_H_

#include <quorvane/store.h>

#include <atomic>
#include <chrono>
#include <cstdint>

namespace quorvane {
namespace cache {
namespace indexed {

// Holds the store lock, but for the times in which its owner lets others have it.
class StoreTurn {
 public:
  // Adds the nanoseconds that it waits to `waited`.
  StoreTurn(Store::Lock& lock, std::atomic<std::uint64_t>& waited) : lock_(lock), waited_(waited) {
    take();
  }
  ~StoreTurn() {
    if (is_held_) {
      lock_.unlock();
    }
  }
  StoreTurn(const StoreTurn&) = delete;
  StoreTurn& operator=(const StoreTurn&) = delete;

  void take() {
    const auto start = std::chrono::steady_clock::now();
    lock_.lock();
    is_held_ = true;
    const std::chrono::nanoseconds waited = std::chrono::steady_clock::now() - start;
    waited_ += static_cast<std::uint64_t>(waited.count());
  }

  void release() {
    is_held_ = false;
    lock_.unlock();
  }

 private:
  Store::Lock& lock_;
  std::atomic<std::uint64_t>& waited_;
  bool is_held_ = false;
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_STORE_TURN_H_
