#include "recorder.h"

#include <pthread.h>
#include <sys/types.h>
#include <unistd.h>

#include <new>

#include "inherited.h"
#include "json_writer.h"
#include "process.h"

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

// The process that forks: in the child, its parent may be gone.
constinit pid_t g_forking = 0;

void before_fork() {
  if (t_forks++ == 0) {
    lock();
  }
  g_forking = getpid();
}

void after_fork() {
  if (--t_forks == 0) {
    unlock();
  }
}

void after_fork_in_child() {
  Process::begin_child(g_forking);
  Inherited::begin_child();
  after_fork();
}

[[maybe_unused]] const int g_guarded_at_load =
    pthread_atfork(&before_fork, &after_fork, &after_fork_in_child);

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
    new (&recorder->root_) Namespace(kIsRoot);
  }
}

std::vector<Namespace::Step> Recorder::steps() const {
  const RegistrationLock lock;
  return root_.steps();
}

namespace {

std::string key_of(const Namespace::Step& step) {
  return *step.name + std::string(step.slashes, '/');
}

// The members of an object, and its end. `write_metric` writes a metric's member.
template <typename WriteMetric>
void write_members(JsonWriter& json, const std::vector<Namespace::Step>& steps,
                   WriteMetric write_metric) {
  for (const Namespace::Step& step : steps) {
    if (step.name == nullptr) {
      json.end_object();
    } else if (step.metric == nullptr) {
      json.key(key_of(step));
      json.begin_object();
    } else {
      write_metric(step);
    }
  }
}

// Reads the metrics without the lock: reading a gauge whose variable is gone may raise SIGSEGV,
// and the handler of that signal may fork.
void write_values(JsonWriter& json, const std::vector<Namespace::Step>& steps) {
  json.begin_object();
  write_members(json, steps, [&](const Namespace::Step& step) {
    json.key(key_of(step));
    step.metric->write(json);
  });
}

void write_inherited(JsonWriter& json, const std::vector<Namespace::Step>& steps) {
  const Inherited::Values values = Inherited::values();
  json.begin_object();
  write_members(json, steps, [&](const Namespace::Step& step) {
    if (const auto found = values.find(step.metric); found != values.end()) {
      json.key(key_of(step));
      step.metric->write_kept(json, found->second);
    }
  });
}

// Returns where the process has its first values from.
Inherited::Origin write_process(JsonWriter& json) {
  const RegistrationLock lock;
  json.key(Namespace::kProcess);
  Process::current().write(json);
  return Inherited::origin();
}

}  // namespace

// The process comes first in the text, but is read after the values: a child that is forked while
// a gauge is read writes a report of its own.
std::string Recorder::to_json() const {
  const std::vector<Namespace::Step> all = steps();
  JsonWriter values;
  write_values(values, all);
  JsonWriter json;
  json.begin_object();
  const Inherited::Origin origin = write_process(json);
  if (origin != Inherited::Origin::kNone) {
    json.key(Namespace::kInherited);
    origin == Inherited::Origin::kKept ? write_inherited(json, all) : json.null();
  }
  json.end_with(values.take_text());
  return json.take_text();
}

}  // namespace circmetrics
