/// \file
/// A pool that lends contiguous byte ranges out of one fixed region in strict
/// circular order.
///
/// The region is mapped twice, back to back, so that a range which runs past its
/// end is contiguous all the same. Ranges come back from the newest end
/// (deallocate) or from the oldest (free); any other order ends the process.
///
/// Thread-safety: every operation; one mutex guards the two counters.
/// Fork-safety: the region is shared memory, the counters are not. Let either the
/// parent or the child use a pool, not both.
#ifndef QUORVANE_CIRCULAR_BUFFER_POOL_H_
#define QUORVANE_CIRCULAR_BUFFER_POOL_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include <quorvane/buffer.h>
#include <quorvane/export.h>
#include <quorvane/tracer.h>

namespace quorvane {
namespace util {

/// One region whose ranges are lent and come back in circular order.
///
/// Invariant: what is lent is one run of the region, from the oldest range to the
/// newest. Thread-safety: every operation.
class QV_EXPORT CircularBufferPool {
 public:
  /// A region of `size` bytes, a multiple of the page size. Anything else, and
  /// a kernel that refuses the memory, logs an ERROR record and aborts.
  explicit CircularBufferPool(unsigned long size);

  /// Every buffer must have been given back.
  ~CircularBufferPool();
  CircularBufferPool(const CircularBufferPool&) = delete;
  CircularBufferPool& operator=(const CircularBufferPool&) = delete;

  /// Lends `size` bytes rounded up to a multiple of 64, waiting without a time
  /// limit while there is no room. A `size` above the region's logs and aborts.
  /// `rpc` goes to the tracer as it is; it may be null.
  RwBuffer allocate(unsigned long size, const _qv_trace_rpc_t* rpc) noexcept;

  /// Takes the newest range back. `ptr` is its start and `size` what was asked
  /// for or lent; another range logs and aborts. Wakes every waiter.
  void deallocate(void* ptr, unsigned long size, const _qv_trace_rpc_t* rpc) noexcept;

  /// Takes the oldest range back, likewise.
  void free(void* ptr, unsigned long size, const _qv_trace_rpc_t* rpc) noexcept;

  // End of the public interface.

 private:
  void map_region();
  void map_file(int fd, std::uint64_t offset);

  std::uint64_t round_up(std::uint64_t size) const {
    return (size + alignment_ - 1) & ~(alignment_ - 1);
  }
  unsigned char* at(std::uint64_t counter) const { return base_ + counter % length_; }
  std::uint64_t advanced(std::uint64_t offset, std::uint64_t size, std::uint64_t counter) const {
    return size < length_ - offset ? offset + size : counter % length_;
  }
  // With the mutex held.
  std::uint64_t free_bytes() const {
    return length_ - (head_.load(std::memory_order_relaxed) - tail_);
  }

  std::uint64_t alignment_ = 64;
  std::mutex mutex_;
  std::condition_variable space_;
  std::uint64_t length_;
  unsigned char* base_ = nullptr;
  std::uint64_t tail_ = 0;  // bytes ever released from the oldest end
  // Bytes ever lent, less those taken back by deallocate. Written under the
  // mutex; the tracer is told of it before the mutex is taken.
  std::atomic<std::uint64_t> head_{0};
  // Both counters modulo length_, since dividing takes as long as a lock does.
  std::uint64_t tail_offset_ = 0;
  std::uint64_t head_offset_ = 0;
  std::uint64_t waiters_ = 0;  // allocators asleep, whom a release wakes
};

}  // namespace util
}  // namespace quorvane

#endif  // QUORVANE_CIRCULAR_BUFFER_POOL_H_
