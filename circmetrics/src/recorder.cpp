#include "recorder.h"

#include <pthread.h>

#include <atomic>
#include <new>

#include "json_writer.h"

namespace circmetrics {
namespace {

constinit std::mutex g_registration_mutex;

void lock() { g_registration_mutex.lock(); }
void unlock() { g_registration_mutex.unlock(); }

[[maybe_unused]] const int g_guarded_at_load = pthread_atfork(&lock, &unlock, &unlock);

}  // namespace

std::mutex& registration_mutex() { return g_registration_mutex; }

// A lock here could be held by a thread that a fork is waiting for elsewhere.
Recorder* Recorder::make() {
  static constinit std::atomic<Recorder*> newest{nullptr};
  auto* const made = new (std::nothrow) Recorder;
  if (made != nullptr) {
    made->previous_ = newest.exchange(made);
  }
  return made;
}

std::vector<Namespace::Step> Recorder::steps() const {
  const std::lock_guard<std::mutex> guard(registration_mutex());
  return root_.steps();
}

// Metrics are read without the lock: one of them may crash, a gauge whose variable is
// no more, and the handler of that may fork.
std::string Recorder::to_json() const {
  JsonWriter json;
  json.begin_object();
  for (const auto& [name, metric] : steps()) {
    if (name == nullptr) {
      json.end_object();
      continue;
    }
    json.key(*name);
    metric != nullptr ? metric->write(json) : json.begin_object();
  }
  return json.take_text();
}

}  // namespace circmetrics
