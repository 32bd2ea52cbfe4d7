#include "src/fork_guard.h"

#include <pthread.h>

#include <atomic>
#include <set>

namespace quorvane {
namespace fork_guard {
namespace {

// The guarded mutexes, in the one order in which they are ever locked together.
struct Guarded {
  std::mutex mutex;
  std::set<std::mutex*> members;
};

Guarded& guarded() {
  static Guarded& all = *new Guarded;
  return all;
}

std::atomic<bool> g_is_given_up{false};
thread_local bool t_is_forking = false;
constinit std::mutex g_outermost;
thread_local bool t_holds_outermost = false;

void before_fork() {
  if (g_is_given_up) {
    return;
  }
  t_is_forking = true;
  if (!t_holds_outermost) {
    g_outermost.lock();
  }
  guarded().mutex.lock();
  for (std::mutex* member : guarded().members) {
    member->lock();
  }
}

void after_fork() {
  if (!t_is_forking) {
    return;
  }
  t_is_forking = false;
  for (std::mutex* member : guarded().members) {
    member->unlock();
  }
  guarded().mutex.unlock();
  if (!t_holds_outermost) {
    g_outermost.unlock();
  }
}

// At load: a process that forks later finds the handlers in place.
const int g_registered = pthread_atfork(&before_fork, &after_fork, &after_fork);

}  // namespace

void add(std::mutex& mutex) {
  const std::lock_guard<std::mutex> lock(guarded().mutex);
  guarded().members.insert(&mutex);
}

void remove(std::mutex& mutex) {
  const std::lock_guard<std::mutex> lock(guarded().mutex);
  guarded().members.erase(&mutex);
}

OutermostLock::OutermostLock() {
  g_outermost.lock();
  t_holds_outermost = true;
}

OutermostLock::~OutermostLock() {
  t_holds_outermost = false;
  g_outermost.unlock();
}

void give_up() { g_is_given_up = true; }

}  // namespace fork_guard
}  // namespace quorvane
