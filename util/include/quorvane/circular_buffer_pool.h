/// \file
/// A pool that lends contiguous byte ranges of one fixed region in strict circular
/// order.
///
/// The region is mapped twice, back to back, so that a range that runs past its end is
/// contiguous all the same. Ranges are returned from the newest end (deallocate) or from
/// the oldest (free); any other order aborts.
///
/// Thread-safety: any thread may call every operation; one mutex guards the two counters.
/// Fork-safety: the region is shared memory, while counters and mutex are copied. After
/// a fork either the parent or the child may use a pool, and the child only if no other
/// thread was using it at the fork.
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

/// One region whose ranges are lent and returned in circular order.
///
/// Invariant: the lent ranges form one run of the region, from the oldest to the newest.
/// Thread-safety: any thread may call every operation. Fork-safety: after a fork either
/// the parent or the child may use a pool, and the child only if no other thread was
/// using it at the fork. Not in signal handlers.
///
/// What aborts logs an ERROR record through the module "util/buffer_pool" first, unless
/// that module is at OFF.
class QV_EXPORT CircularBufferPool {
 public:
  /// A region of `size` bytes, a multiple of the page size and not 0. Any other size
  /// aborts, and so does a refusal of memory by the kernel.
  explicit CircularBufferPool(unsigned long size);

  /// Unmaps the region. Every buffer must have been returned.
  ~CircularBufferPool();
  CircularBufferPool(const CircularBufferPool&) = delete;
  CircularBufferPool& operator=(const CircularBufferPool&) = delete;

  /// Lends `size` bytes, rounded up to a multiple of 64; 0 gives an empty buffer. Waits
  /// without a time limit while there is no room. A `size` above the region's aborts. The
  /// buffer returns its range when it is destroyed. `rpc` is passed to the tracer; it may
  /// be null.
  RwBuffer allocate(unsigned long size, const _qv_trace_rpc_t* rpc) noexcept;

  /// Takes back the newest range, and wakes every waiter. `ptr` is its start, and `size`
  /// is the size that was asked for or that was lent. Any other range aborts. RwBuffer calls this;
  /// a range must not be returned twice.
  void deallocate(void* ptr, unsigned long size, const _qv_trace_rpc_t* rpc) noexcept;

  /// Takes back the oldest range in the same way.
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
  // Bytes ever lent, less those taken back by deallocate. Written under the mutex;
  // atomic, since allocate reports it to the tracer before it takes the mutex.
  std::atomic<std::uint64_t> head_{0};
  // Both counters modulo length_, kept because a division takes as long as a lock.
  std::uint64_t tail_offset_ = 0;
  std::uint64_t head_offset_ = 0;
  std::uint64_t waiters_ = 0;  // threads that sleep in allocate until a release wakes them
};

}  // namespace util
}  // namespace quorvane

#endif  // QUORVANE_CIRCULAR_BUFFER_POOL_H_
