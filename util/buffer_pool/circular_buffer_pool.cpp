#include <quorvane/circular_buffer_pool.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <quorvane/log.h>
#include <quorvane/module.h>

namespace quorvane {
namespace util {
namespace {

const quorvane::Module g_module("util/buffer_pool");

using trace::Event;
using trace::Operation;

bool is_traced() { return &qvtracer::util::write_trace != nullptr; }

// The reports of one operation share a scratch record.
class Trace {
 public:
  // Cold: few processes have a tracer.
  __attribute__((cold, noinline)) void report(const CircularBufferPool* pool,
                                              const _qv_trace_rpc_t* rpc, Event event,
                                              Operation operation, const void* ptr,
                                              std::uint64_t size, const void* position) {
    qvtracer::util::write_trace(rpc, &record_, static_cast<unsigned>(event),
                                static_cast<unsigned>(operation), pool, ptr,
                                reinterpret_cast<const void*>(size), position);
  }

 private:
  _qv_trace_rpc_t record_;
};

// A module at OFF suppresses even this record.
// Kept: docs/compatibility.md
[[noreturn]] __attribute__((format(printf, 1, 2))) void log_and_abort(const char* format, ...) {
  if (g_module->level >= QV_LOG_LEVEL_ERROR) {
    va_list arguments;
    va_start(arguments, format);
    qv_logv_do(g_module.get(), QV_LOG_LEVEL_ERROR, 0, format, arguments);
    va_end(arguments);
  }
  std::abort();
}

}  // namespace

CircularBufferPool::CircularBufferPool(unsigned long size) : length_(size) {
  // 0 passes here, and map_region aborts.
  // Kept: docs/compatibility.md
  if (size % static_cast<unsigned long>(getpagesize()) != 0) {
    log_and_abort("Buffer pool must be a multiple of page size");
  }
  map_region();
}

CircularBufferPool::~CircularBufferPool() { munmap(base_, 2 * length_); }

void CircularBufferPool::map_region() {
  // A refused reservation shows below, when the file can't be mapped over it.
  // Kept: docs/compatibility.md
  base_ = static_cast<unsigned char*>(
      mmap(nullptr, 2 * length_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  char name[32];
  std::snprintf(name, sizeof(name), "ringbuf-%p", static_cast<void*>(this));
  const int fd = memfd_create(name, MFD_CLOEXEC);
  if (fd < 0) {
    log_and_abort("memfd_create failed: %s", strerror(errno));
  }
  if (ftruncate(fd, static_cast<off_t>(length_)) != 0) {
    log_and_abort("ftruncate failed: %s", strerror(errno));
  }
  map_file(fd, 0);
  map_file(fd, length_);
  ::close(fd);
}

void CircularBufferPool::map_file(int fd, std::uint64_t offset) {
  void* const wanted = reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(base_) + offset);
  if (mmap(wanted, length_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0) == MAP_FAILED) {
    log_and_abort("mmap failed: %s", strerror(errno));
  }
}

RwBuffer CircularBufferPool::allocate(unsigned long size, const _qv_trace_rpc_t* rpc) noexcept {
  Trace trace;
  // Reported before the lock is taken, and with the size that was asked for.
  // Kept: docs/compatibility.md
  if (is_traced()) {
    trace.report(this, rpc, Event::start, Operation::pool_allocate, nullptr, size,
                 at(head_.load(std::memory_order_relaxed)));
  }
  const std::uint64_t rounded = round_up(size);
  if (length_ < size) {
    // The record has the rounded size, which may be 0.
    // Kept: docs/compatibility.md
    log_and_abort(
        "CircularBufferPool::allocate cannot satisfy allocation request of %zu > MAX_SIZE (%zu)",
        rounded, length_);
  }
  std::unique_lock<std::mutex> lock(mutex_);
  while (rounded > free_bytes()) {
    ++waiters_;
    space_.wait(lock);
    --waiters_;
  }
  RwBuffer buffer(base_ + head_offset_, rounded, this);
  const std::uint64_t head = head_.load(std::memory_order_relaxed) + rounded;
  head_.store(head, std::memory_order_relaxed);
  head_offset_ = advanced(head_offset_, rounded, head);
  if (is_traced()) {
    trace.report(this, rpc, Event::end, Operation::pool_allocate, buffer.get_buffer(), rounded,
                 base_ + head_offset_);
  }
  return buffer;
}

void CircularBufferPool::deallocate(void* ptr, unsigned long size,
                                    const _qv_trace_rpc_t* rpc) noexcept {
  Trace trace;
  const std::uint64_t rounded = round_up(size);
  std::unique_lock<std::mutex> lock(mutex_);
  if (is_traced()) {
    trace.report(this, rpc, Event::start, Operation::pool_deallocate, ptr, rounded,
                 base_ + head_offset_);
  }
  const std::uint64_t head = head_.load(std::memory_order_relaxed) - rounded;
  const std::uint64_t offset = rounded <= head_offset_ ? head_offset_ - rounded : head % length_;
  if (ptr != base_ + offset) {
    log_and_abort("CircularBufferPool::deallocate called in wrong order. Expected %p, actual %p.",
                  static_cast<void*>(base_ + offset), ptr);
  }
  head_.store(head, std::memory_order_relaxed);
  head_offset_ = offset;
  if (is_traced()) {
    trace.report(this, rpc, Event::end, Operation::pool_deallocate, ptr, rounded, ptr);
  }
  const bool is_awaited = waiters_ > 0;
  lock.unlock();
  if (is_awaited) {
    space_.notify_all();
  }
}

void CircularBufferPool::free(void* ptr, unsigned long size, const _qv_trace_rpc_t* rpc) noexcept {
  Trace trace;
  const std::uint64_t rounded = round_up(size);
  std::unique_lock<std::mutex> lock(mutex_);
  if (is_traced()) {
    trace.report(this, rpc, Event::start, Operation::pool_free, ptr, rounded, base_ + tail_offset_);
  }
  if (ptr != base_ + tail_offset_) {
    log_and_abort("CircularBufferPool::free called in wrong order. Expected %p, actual %p.",
                  static_cast<void*>(base_ + tail_offset_), ptr);
  }
  tail_ += rounded;
  tail_offset_ = advanced(tail_offset_, rounded, tail_);
  if (is_traced()) {
    trace.report(this, rpc, Event::end, Operation::pool_free, ptr, rounded, base_ + tail_offset_);
  }
  const bool is_awaited = waiters_ > 0;
  lock.unlock();
  if (is_awaited) {
    space_.notify_all();
  }
}

}  // namespace util
}  // namespace quorvane
