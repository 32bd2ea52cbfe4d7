// Tells when a look-up should see whether the files have been replaced.
#ifndef QUORVANE_SRC_CACHE_INDEXED_LOOK_CLOCK_H_
#define QUORVANE_SRC_CACHE_INDEXED_LOOK_CLOCK_H_

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace quorvane {
namespace cache {
namespace indexed {

// Due about every 20 us.
//
// Reading the exact time may keep the processor from overlapping the look-ups of a loop. So a
// thread whose misses come close together reads it with every 32nd miss only, and when the kernel's
// coarse clock has ticked. Thread-safety: any thread. Fork-safety: a child may use its copy.
class LookClock {
 public:
  bool is_due() {
    const long tick = time_of(CLOCK_MONOTONIC_COARSE);
    if (t_pace.left > 0 && t_pace.tick == tick) {
      --t_pace.left;
      return false;
    }
    const std::uint64_t now = exact_time();
    t_pace.skipped = now - t_pace.read < kInterval / 2 ? std::min(2 * t_pace.skipped + 1, 31) : 0;
    t_pace.left = t_pace.skipped;
    t_pace.read = now;
    t_pace.tick = tick;
    if (now - looked_at_.load(std::memory_order_relaxed) < kInterval) {
      return false;  // not stored: threads that miss would pass the line around
    }
    looked_at_.store(now, std::memory_order_relaxed);
    return true;
  }

 private:
  struct Pace {
    int skipped;  // misses between two readings
    int left;     // of those
    std::uint64_t read;
    long tick;
  };

  static long time_of(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return now.tv_sec * 1'000'000'000 + now.tv_nsec;
  }

  // Only differences count, and those roughly: the counters of processors may disagree.
#ifdef __x86_64__
  static std::uint64_t exact_time() { return __builtin_ia32_rdtsc(); }
  static constexpr std::uint64_t kInterval = std::uint64_t{1} << 16;  // 22 us at 3 GHz
#else
  static std::uint64_t exact_time() { return static_cast<std::uint64_t>(time_of(CLOCK_MONOTONIC)); }
  static constexpr std::uint64_t kInterval = 20'000;  // ns
#endif

  // Initial-exec: its use costs no call.
  __attribute__((tls_model("initial-exec"))) static constinit inline thread_local Pace t_pace{};

  std::atomic<std::uint64_t> looked_at_{0};
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_LOOK_CLOCK_H_
