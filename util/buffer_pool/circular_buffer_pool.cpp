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

// What the tracer knows the pool's operations by.
enum class Operation : unsigned { kAllocate = 14, kDeallocate = 15, kFree = 16 };

bool is_traced() { return &qvtracer::util::write_trace != nullptr; }

// The two reports of one operation, which share a scratch record.
class Trace {
 public:
  Trace(const CircularBufferPool* pool, Operation operation, const _qv_trace_rpc_t* rpc)
      : pool_(pool), operation_(operation), rpc_(rpc) {}

  void start(const void* ptr, std::uint64_t size, const void* position) {
    report(1543, ptr, size, position);
  }
  void end(const void* ptr, std::uint64_t size, const void* position) {
    report(1544, ptr, size, position);
  }

 private:
  void report(unsigned event, const void* ptr, std::uint64_t size, const void* position) {
    qvtracer::util::write_trace(rpc_, &record_, event, static_cast<unsigned>(operation_), pool_,
                                ptr, reinterpret_cast<const void*>(size), position);
  }

  const CircularBufferPool* pool_;
  Operation operation_;
  const _qv_trace_rpc_t* rpc_;
  _qv_trace_rpc_t record_;
};

// The module's level isn't asked: the process should not end without a word.
[[noreturn]] __attribute__((format(printf, 1, 2))) void log_and_abort(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  qv_logv_do(g_module.get(), QV_LOG_LEVEL_ERROR, 0, format, arguments);
  va_end(arguments);
  std::abort();
}

}  // namespace

CircularBufferPool::CircularBufferPool(unsigned long size) : length_(size) {
  if (size % static_cast<unsigned long>(getpagesize()) != 0) {
    log_and_abort("Buffer pool must be a multiple of page size");
  }
  map_region();
}

CircularBufferPool::~CircularBufferPool() { munmap(base_, 2 * length_); }

void CircularBufferPool::map_region() {
  // A refused reservation shows when the file can't be mapped over it.
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
  Trace trace(this, Operation::kAllocate, rpc);
  if (is_traced()) {
    trace.start(nullptr, size, at(head_.load(std::memory_order_relaxed)));
  }
  const std::uint64_t rounded = round_up(size);
  if (length_ < size) {
    log_and_abort(
        "CircularBufferPool::allocate cannot satisfy allocation request of %zu > MAX_SIZE (%zu)",
        rounded, length_);
  }
  std::unique_lock<std::mutex> lock(mutex_);
  while (rounded > free_bytes()) {
    space_.wait(lock);
  }
  const std::uint64_t head = head_.load(std::memory_order_relaxed);
  RwBuffer buffer(at(head), rounded, this);
  head_.store(head + rounded, std::memory_order_relaxed);
  if (is_traced()) {
    trace.end(buffer.get_buffer(), rounded, at(head + rounded));
  }
  return buffer;
}

void CircularBufferPool::deallocate(void* ptr, unsigned long size,
                                    const _qv_trace_rpc_t* rpc) noexcept {
  Trace trace(this, Operation::kDeallocate, rpc);
  const std::uint64_t rounded = round_up(size);
  std::unique_lock<std::mutex> lock(mutex_);
  const std::uint64_t head = head_.load(std::memory_order_relaxed);
  if (is_traced()) {
    trace.start(ptr, rounded, at(head));
  }
  unsigned char* const expected = at(head - rounded);
  if (ptr != expected) {
    log_and_abort("CircularBufferPool::deallocate called in wrong order. Expected %p, actual %p.",
                  static_cast<void*>(expected), ptr);
  }
  head_.store(head - rounded, std::memory_order_relaxed);
  if (is_traced()) {
    trace.end(ptr, rounded, ptr);
  }
  lock.unlock();
  space_.notify_all();
}

void CircularBufferPool::free(void* ptr, unsigned long size, const _qv_trace_rpc_t* rpc) noexcept {
  Trace trace(this, Operation::kFree, rpc);
  const std::uint64_t rounded = round_up(size);
  std::unique_lock<std::mutex> lock(mutex_);
  if (is_traced()) {
    trace.start(ptr, rounded, at(tail_));
  }
  unsigned char* const expected = at(tail_);
  if (ptr != expected) {
    log_and_abort("CircularBufferPool::free called in wrong order. Expected %p, actual %p.",
                  static_cast<void*>(expected), ptr);
  }
  tail_ += rounded;
  if (is_traced()) {
    trace.end(ptr, rounded, at(tail_));
  }
  lock.unlock();
  space_.notify_all();
}

std::uint64_t CircularBufferPool::round_up(std::uint64_t size) const {
  return (size + alignment_ - 1) & ~(alignment_ - 1);
}

unsigned char* CircularBufferPool::at(std::uint64_t counter) const {
  return base_ + counter % length_;
}

// With the mutex held.
std::uint64_t CircularBufferPool::free_bytes() const {
  return length_ - (head_.load(std::memory_order_relaxed) - tail_);
}

}  // namespace util
}  // namespace quorvane
