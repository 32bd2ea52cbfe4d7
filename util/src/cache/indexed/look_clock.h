// Tells when a look-up should see whether the files have been replaced.
#ifndef QUORVANE_SRC_CACHE_INDEXED_LOOK_CLOCK_H_
#define QUORVANE_SRC_CACHE_INDEXED_LOOK_CLOCK_H_

#include <time.h>

#include <atomic>
#include <cstdint>

namespace quorvane {
namespace cache {
namespace indexed {

// Due about every 20 us.
// Thread-safety: any thread. Fork-safety: a child may use its copy.
class LookClock {
 public:
  bool is_due() {
    const std::uint64_t now = exact_time();
    if (now - looked_at_.load(std::memory_order_relaxed) < kInterval) {
      return false;  // not stored: threads that miss would pass the line around
    }
    looked_at_.store(now, std::memory_order_relaxed);
    return true;
  }

 private:
  // Only differences count, and those roughly: the counters of processors may disagree.
#ifdef __x86_64__
  static std::uint64_t exact_time() { return __builtin_ia32_rdtsc(); }
  static constexpr std::uint64_t kInterval = std::uint64_t{1} << 16;  // 22 us at 3 GHz
#else
  static std::uint64_t exact_time() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U +
           static_cast<std::uint64_t>(now.tv_nsec);
  }
  static constexpr std::uint64_t kInterval = 20'000;  // ns
#endif

  std::atomic<std::uint64_t> looked_at_{0};
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_LOOK_CLOCK_H_
