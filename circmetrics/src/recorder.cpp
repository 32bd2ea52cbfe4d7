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

std::string Recorder::to_json() const {
  const std::lock_guard<std::mutex> guard(registration_mutex());
  JsonWriter json;
  root_.write(json);
  return json.take_text();
}

}  // namespace circmetrics
