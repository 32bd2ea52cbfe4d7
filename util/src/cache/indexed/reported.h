// Which damaged entries a process has reported.
#ifndef QUORVANE_SRC_CACHE_INDEXED_REPORTED_H_
#define QUORVANE_SRC_CACHE_INDEXED_REPORTED_H_

#include <array>
#include <atomic>
#include <cstdint>

namespace quorvane {
namespace cache {
namespace indexed {

// A program looks a damaged entry up again and again, since it doesn't find it. The log gets
// one record of each, and none once kMost are reported.
// Thread-safety: any thread. Fork-safety: a child doesn't report what its parent has.
class Reported {
 public:
  static constexpr std::size_t kMost = 256;

  // Whether `entry` is new. Only one thread is told so.
  bool add(std::uint64_t entry) {
    for (std::atomic<std::uint64_t>& known : entries_) {
      std::uint64_t present = 0;
      if (known.compare_exchange_strong(present, entry)) {
        return true;
      }
      if (present == entry) {
        return false;
      }
    }
    return false;
  }

 private:
  std::array<std::atomic<std::uint64_t>, kMost> entries_{};
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_REPORTED_H_
