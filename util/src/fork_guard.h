// Keeps a fork from catching a mutex in the hands of another thread.
//
// A fork waits until every guarded mutex is free, so a child finds all of them
// unlocked and what they guard whole. Guard only mutexes that are held briefly,
// never across a wait or foreign code, and of which no thread holds two at a time.
#ifndef QUORVANE_SRC_FORK_GUARD_H_
#define QUORVANE_SRC_FORK_GUARD_H_

#include <unistd.h>

#include <cstdint>
#include <mutex>

namespace quorvane {
namespace fork_guard {

// Any thread, not while holding a guarded mutex. Without memory for it the mutex
// works but stays unguarded.
void add(std::mutex& mutex) noexcept;
void remove(std::mutex& mutex) noexcept;

// Locks a guarded mutex, unless this thread is forking: it then holds all of them
// already. Fork handlers that a program registered before it loaded this library run
// while they are held, and may use the library.
class Lock {
 public:
  explicit Lock(std::mutex& mutex);
  ~Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  std::mutex* mutex_;  // null: not locked here
};

// How many forks of this process have begun. Nobody forks while a guarded mutex is held:
// when the number is still the same then, no child has what was opened since.
std::uint64_t forks_begun();

// Opens what children mustn't share (a lock, say), since the last of those who share it
// ends it: `open` gives a descriptor or -1, `keep` stores it where the child's fork
// handler finds it. A fork that comes in between doesn't wait; the file is then opened
// again. True when a descriptor was kept, false with errno.
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

// For a thread about to abort, which may hold a guarded mutex: forks wait no
// more, so that a handler of SIGABRT may fork. Any thread.
void give_up();

}  // namespace fork_guard
}  // namespace quorvane

#endif  // QUORVANE_SRC_FORK_GUARD_H_
