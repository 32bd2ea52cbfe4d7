// What the tests of the circular buffer pool share: ways to move a pool's position, and a
// thread that waits for room.
#ifndef TESTS_CIRCULAR_BUFFER_POOL_TEST_FIXTURE_H_
#define TESTS_CIRCULAR_BUFFER_POOL_TEST_FIXTURE_H_

#include <quorvane/circular_buffer_pool.h>
#include <unistd.h>

#include <new>
#include <optional>

#include "support/thread_state.h"

namespace pool_test {

using quorvane::util::CircularBufferPool;
using quorvane::util::RwBuffer;

inline unsigned long page() { return static_cast<unsigned long>(sysconf(_SC_PAGESIZE)); }

// Where the next range starts in a pool that has lent nothing.
inline unsigned char* position(CircularBufferPool& pool) {
  return pool.allocate(0, nullptr).get_buffer();
}

// Lends a range and releases it as the oldest, so that the next one starts `size` further on.
inline void skip(CircularBufferPool& pool, unsigned long size) {
  pool.allocate(size, nullptr).set_pool_release_is_free(true);
}

// Lends a range that only the caller releases: the buffer's destructor never runs.
inline unsigned char* lend(CircularBufferPool& pool, unsigned long size) {
  alignas(RwBuffer) unsigned char storage[sizeof(RwBuffer)];
  return (new (storage) RwBuffer(pool.allocate(size, nullptr)))->get_buffer();
}

// A thread that allocates, and that can be watched while it waits for room.
class Allocator {
 public:
  Allocator(CircularBufferPool& pool, unsigned long size)
      : thread_([this, &pool, size] { buffer_ = pool.allocate(size, nullptr); }) {}

  // Returns once the thread sleeps or has its buffer.
  void settle() const { thread_.settle(); }

  bool is_done() const { return thread_.is_done(); }

  RwBuffer& result() {
    thread_.join();
    return *buffer_;
  }

 private:
  std::optional<RwBuffer> buffer_;
  test::Watched thread_;
};

}  // namespace pool_test

#endif  // TESTS_CIRCULAR_BUFFER_POOL_TEST_FIXTURE_H_
