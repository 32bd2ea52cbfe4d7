// What the workers have done so far.
#ifndef FINGERPRINT_COUNTS_H_
#define FINGERPRINT_COUNTS_H_

#include <atomic>
#include <cstdint>

namespace fingerprint {

// In memory that all workers share; lock-free atomics work between processes.
struct Counts {
  std::atomic<std::uint64_t> hits{0};
  std::atomic<std::uint64_t> misses{0};
  std::atomic<std::uint64_t> unreadable{0};
  std::atomic<std::uint64_t> bytes_read{0};
  std::atomic<std::uint64_t> unstored{0};  // workers whose digests couldn't be stored

  std::uint64_t files() const { return hits + misses + unreadable; }
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

}  // namespace fingerprint

#endif  // FINGERPRINT_COUNTS_H_
