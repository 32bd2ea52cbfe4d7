// Keeps forks out of steps that a child must not find half done. No wait lasts longer than
// about a second in which the process runs.
//
// fork_guard is for mutexes that are held briefly. Loading a recorder runs foreign code,
// which may be slow, fork, or wait for a thread that forks: so every wait here ends, and no
// thread waits for itself.
#ifndef QUORVANE_SRC_FORK_GATE_H_
#define QUORVANE_SRC_FORK_GATE_H_

namespace quorvane {
namespace fork_gate {

// While one exists, forks of other threads wait. Any thread.
class Closed {
 public:
  Closed();
  ~Closed();
  Closed(const Closed&) = delete;
  Closed& operator=(const Closed&) = delete;
};

// Waits until all forks of other threads that began earlier are over. Such forks don't run
// fork handlers that were registered after they began. Any thread.
void wait_for_earlier_forks();

// For the process's fork handlers.
void before_fork();
void after_fork_in_parent();
void after_fork_in_child();

}  // namespace fork_gate
}  // namespace quorvane

#endif  // QUORVANE_SRC_FORK_GATE_H_
