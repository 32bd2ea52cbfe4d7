// Keeps a fork from catching a mutex in the hands of another thread.
//
// A fork waits until every guarded mutex is free, so a child finds all of them
// unlocked and what they guard whole. Guard only mutexes that are held briefly,
// never across a wait or foreign code, and of which no thread holds two at a time.
#ifndef QUORVANE_SRC_FORK_GUARD_H_
#define QUORVANE_SRC_FORK_GUARD_H_

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

// For a thread about to abort, which may hold a guarded mutex: forks wait no
// more, so that a handler of SIGABRT may fork. Any thread.
void give_up();

}  // namespace fork_guard
}  // namespace quorvane

#endif  // QUORVANE_SRC_FORK_GUARD_H_
