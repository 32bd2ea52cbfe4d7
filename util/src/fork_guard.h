// Keeps a fork from catching a mutex in the hands of another thread.
//
// A fork waits until every guarded mutex is free, so a child finds all of them
// unlocked and what they guard whole. Guard only mutexes that are held briefly,
// never across a wait, and of which no thread holds two at a time.
#ifndef QUORVANE_SRC_FORK_GUARD_H_
#define QUORVANE_SRC_FORK_GUARD_H_

#include <mutex>

namespace quorvane {
namespace fork_guard {

// Any thread, not while holding a guarded mutex.
void add(std::mutex& mutex);
void remove(std::mutex& mutex);

// Locks the outermost one: a fork takes it ahead of all others, and a fork by the
// thread that holds it doesn't wait. For what runs foreign code, which may fork, or
// lock others of the guarded ones.
class OutermostLock {
 public:
  OutermostLock();
  ~OutermostLock();
  OutermostLock(const OutermostLock&) = delete;
  OutermostLock& operator=(const OutermostLock&) = delete;
};

// For a thread about to abort, which may hold a guarded mutex: forks wait no
// more, so that a handler of SIGABRT may fork. Any thread.
void give_up();

}  // namespace fork_guard
}  // namespace quorvane

#endif  // QUORVANE_SRC_FORK_GUARD_H_
