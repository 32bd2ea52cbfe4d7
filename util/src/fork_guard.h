// Keeps a child of fork from inheriting a mutex that another thread holds.
//
// A fork waits until every guarded mutex is free, so the child finds all of them unlocked
// and what they protect consistent. Guard only mutexes that are held briefly, never during
// a wait or foreign code. No thread may hold two of them at a time.
#ifndef QUORVANE_SRC_FORK_GUARD_H_
#define QUORVANE_SRC_FORK_GUARD_H_

#include <unistd.h>

#include <cstdint>
#include <mutex>

namespace quorvane {
namespace fork_guard {

// Any thread that holds no guarded mutex. Without memory the mutex works but stays
// unguarded.
void add(std::mutex& mutex) noexcept;
void remove(std::mutex& mutex) noexcept;

// Locks a guarded mutex, unless this thread is forking and so holds all of them already:
// fork handlers that a program registered before it loaded this library run while the
// mutexes are held, and may use the library.
class Lock {
 public:
  explicit Lock(std::mutex& mutex);
  ~Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  std::mutex* mutex_;  // null: not locked here
};

// How many forks of this process have begun. No fork begins while a guarded mutex is held.
// So if a caller that holds one reads the same number as earlier, no child has inherited what
// the caller opened in between.
std::uint64_t forks_begun();

// Opens a descriptor that children must not share: a lock on a shared one lasts until the
// last process closes it. `open` returns a descriptor or -1; `keep` stores it where the
// child's fork handler finds it. A fork in between doesn't wait; this function then closes
// the descriptor and opens another. True when a descriptor was kept, false with errno.
template <typename Open, typename Keep>
bool open_unshared(std::mutex& guarded, const Open& open, const Keep& keep) {
  for (;;) {
    const std::uint64_t before = forks_begun();
    const int fd = open();
    const Lock lock(guarded);
    if (fd < 0 || forks_begun() == before) {
      keep(fd);
      return fd >= 0;
    }
    close(fd);
  }
}

// For a thread that is about to abort and may hold a guarded mutex: forks no longer wait, so
// that a handler of SIGABRT may fork. Any thread.
void give_up();

}  // namespace fork_guard
}  // namespace quorvane

#endif  // QUORVANE_SRC_FORK_GUARD_H_
