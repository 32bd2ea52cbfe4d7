#include "src/fork_guard.h"

#include <pthread.h>

#include <atomic>
#include <new>
#include <set>

namespace quorvane {
namespace fork_guard {
namespace {

// The guarded mutexes, in the only order in which they are ever locked together.
struct Guarded {
  std::mutex mutex;
  std::set<std::mutex*> members;
};

Guarded& guarded() {
  static Guarded& all = *new Guarded;
  return all;
}

[[maybe_unused]] Guarded& g_made_at_load = guarded();

std::atomic<bool> g_is_given_up{false};

// How many nested forks this thread is in since it locked all mutexes (a fork handler may
// fork itself); 0 when it holds none. Initial-exec, so that a thread's first use doesn't
// allocate.
__attribute__((tls_model("initial-exec"))) thread_local unsigned t_forks = 0;

bool holds_all() { return t_forks > 0; }

std::atomic<std::uint64_t> g_forks_begun{0};

void before_fork() {
  if (!holds_all()) {
    if (g_is_given_up) {
      return;
    }
    guarded().mutex.lock();
    for (std::mutex* member : guarded().members) {
      member->lock();
    }
  }
  ++g_forks_begun;
  ++t_forks;
}

void after_fork() {
  if (!holds_all() || --t_forks > 0) {
    return;
  }
  for (std::mutex* member : guarded().members) {
    member->unlock();
  }
  guarded().mutex.unlock();
}

// At load, so that every later fork runs the handlers.
const int g_registered = pthread_atfork(&before_fork, &after_fork, &after_fork);

}  // namespace

void add(std::mutex& mutex) noexcept try {
  const Lock lock(guarded().mutex);
  const bool is_new = guarded().members.insert(&mutex).second;
  if (is_new && holds_all()) {
    mutex.lock();  // after_fork unlocks it with the others
  }
} catch (const std::bad_alloc&) {
  // A fork may then find the mutex locked; everything else works.
}

void remove(std::mutex& mutex) noexcept {
  const Lock lock(guarded().mutex);
  if (guarded().members.erase(&mutex) != 0 && holds_all()) {
    mutex.unlock();
  }
}

Lock::Lock(std::mutex& mutex) : mutex_(holds_all() ? nullptr : &mutex) {
  if (mutex_ != nullptr) {
    mutex_->lock();
  }
}

Lock::~Lock() {
  if (mutex_ != nullptr) {
    mutex_->unlock();
  }
}

std::uint64_t forks_begun() { return g_forks_begun; }

void give_up() { g_is_given_up = true; }

}  // namespace fork_guard
}  // namespace quorvane
