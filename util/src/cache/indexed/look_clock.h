// A clock that costs a look-up almost nothing.
#ifndef QUORVANE_SRC_CACHE_INDEXED_LOOK_CLOCK_H_
#define QUORVANE_SRC_CACHE_INDEXED_LOOK_CLOCK_H_

#include <time.h>

#include <cstdint>

namespace quorvane {
namespace cache {
namespace indexed {

// In ticks. Only the difference of two times counts, and that only roughly: counters of
// different processors may disagree.
#ifdef __x86_64__
inline std::uint64_t look_time() { return __builtin_ia32_rdtsc(); }
constexpr std::uint64_t kLookInterval = std::uint64_t{1} << 16;  // 22 us at 3 GHz
#else
inline std::uint64_t look_time() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U +
         static_cast<std::uint64_t>(now.tv_nsec);
}
constexpr std::uint64_t kLookInterval = 20'000;  // ns
#endif

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_LOOK_CLOCK_H_
