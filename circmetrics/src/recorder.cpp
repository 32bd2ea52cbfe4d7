#include "recorder.h"

#include <pthread.h>
#include <sys/types.h>
#include <unistd.h>

#include <new>

#include "json_writer.h"

namespace circmetrics {
namespace {

// The id of the process whose thread holds the lock, or 0. Never destroyed: the last
// report is written after the static destructors.
constinit std::atomic<pid_t> g_holder{0};

// How many forks of this thread are under way: a fork handler may itself fork.
// Initial-exec, so that the first use in a thread doesn't allocate.
constinit thread_local unsigned t_forks __attribute__((tls_model("initial-exec"))) = 0;

void lock() {
  const pid_t self = getpid();
  pid_t holder = 0;
  while (!g_holder.compare_exchange_weak(holder, self, std::memory_order_acquire,
                                         std::memory_order_relaxed)) {
    if (holder == self) {
      g_holder.wait(self, std::memory_order_relaxed);
      holder = 0;
    }
  }
  if (holder != 0) {
    Recorder::abandon_all();
  }
}

void unlock() {
  g_holder.store(0, std::memory_order_release);
  g_holder.notify_one();
}

void before_fork() {
  if (t_forks++ == 0) {
    lock();
  }
}

void after_fork() {
  if (--t_forks == 0) {
    unlock();
  }
}

[[maybe_unused]] const int g_guarded_at_load =
    pthread_atfork(&before_fork, &after_fork, &after_fork);

}  // namespace

RegistrationLock::RegistrationLock() : is_forking_(t_forks > 0) {
  if (!is_forking_) {
    lock();
  }
}

RegistrationLock::~RegistrationLock() {
  if (!is_forking_) {
    unlock();
  }
}

constinit std::atomic<Recorder*> Recorder::newest_{nullptr};

// Takes no lock: a fork under way may hold the lock while it waits for this thread.
Recorder* Recorder::make() {
  auto* const made = new (std::nothrow) Recorder;
  if (made != nullptr) {
    made->previous_ = newest_.load(std::memory_order_relaxed);
    while (!newest_.compare_exchange_weak(made->previous_, made, std::memory_order_acq_rel,
                                          std::memory_order_relaxed)) {
    }
  }
  return made;
}

void Recorder::abandon_all() {
  Recorder* recorder = newest_.load(std::memory_order_acquire);
  for (; recorder != nullptr; recorder = recorder->previous_) {
    new (&recorder->root_) Namespace;
  }
}

std::vector<Namespace::Step> Recorder::steps() const {
  const RegistrationLock lock;
  return root_.steps();
}

// Reads the metrics without the lock: reading a gauge whose variable is gone may raise
// SIGSEGV, and the handler of that signal may fork.
std::string Recorder::to_json() const {
  JsonWriter json;
  json.begin_object();
  for (const auto& [name, slashes, metric] : steps()) {
    if (name == nullptr) {
      json.end_object();
      continue;
    }
    json.key(*name + std::string(slashes, '/'));
    metric != nullptr ? metric->write(json) : json.begin_object();
  }
  return json.take_text();
}

}  // namespace circmetrics
