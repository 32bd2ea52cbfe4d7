#include "src/tracer.h"

#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <mutex>

#include "src/process_generation.h"
#include "src/uncancellable.h"

namespace quorvane {
namespace tracing {
namespace {

using cache::FlushTurn;

constexpr int kBuffers = 128;  // 8 MB of addresses; only used pages take memory
constexpr std::uint64_t kInterval = 10'000'000;
constexpr std::uint64_t kSecond = 1'000'000'000;

__attribute__((tls_model("initial-exec"))) constinit thread_local ThreadBuffer* t_buffer = nullptr;

}  // namespace

std::uint64_t now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * kSecond +
         static_cast<std::uint64_t>(time.tv_nsec);
}

constinit Tracer Tracer::g_tracer;

Tracer& Tracer::get() { return g_tracer; }

void Tracer::start(const char* name) noexcept {
  file_.set_name(name);
  void* const memory = mmap(nullptr, kBuffers * sizeof(ThreadBuffer), PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory != MAP_FAILED && pthread_key_create(&key_, &end_thread) == 0) {
    buffers_ = static_cast<ThreadBuffer*>(memory);  // zeros are empty buffers
  }
  generation_ = process_generation();
  interval_ = kInterval;
  is_on_.store(true, std::memory_order_release);
}

void Tracer::add(const Span& span) noexcept {
  if (is_inherited()) {
    return;
  }
  ThreadBuffer* const buffer = t_buffer != nullptr ? t_buffer : own_buffer();
  if (buffer == nullptr) {
    write_alone(span);
    return;
  }
  if (!buffer->has_room()) {
    write_full(*buffer);
  }
  buffer->add(span);
  if (span.end >= due_.load(std::memory_order_relaxed)) {
    try_write_all();
  }
}

// A child of a raw clone has its parent's buffers: no fork handler has run.
bool Tracer::is_inherited() const {
  return generation_.load(std::memory_order_relaxed) != process_generation();
}

// Null when all have had threads of this process or an ancestor, or there is no memory for them.
ThreadBuffer* Tracer::own_buffer() {
  if (buffers_ == nullptr) {
    return nullptr;
  }
  int index = first_;
  while (index < kBuffers && !buffers_[index].try_own(getpid())) {
    ++index;
  }
  if (index == kBuffers) {
    return nullptr;
  }
  ThreadBuffer* const buffer = &buffers_[index];
  if (pthread_setspecific(key_, buffer) != 0) {
    buffer->disown();
    return nullptr;
  }
  int used = used_.load(std::memory_order_relaxed);
  while (used <= index && !used_.compare_exchange_weak(used, index + 1)) {
  }
  return t_buffer = buffer;
}

// For a thread without a buffer.
void Tracer::write_alone(const Span& span) {
  char line[kMostLine];
  const char* const end = write_line(line, LineStart(getpid(), gettid()), span);
  const Uncancellable uncancellable;
  const FlushTurn turn(turn_);
  write({line, static_cast<std::size_t>(end - line)});
}

void Tracer::write_full(ThreadBuffer& buffer) {
  const Uncancellable uncancellable;
  const FlushTurn turn(turn_);
  write(buffer.take());
  buffer.clear();
}

// False when another thread is writing.
bool Tracer::try_write_all() {
  const Uncancellable uncancellable;
  const FlushTurn turn(turn_, std::try_to_lock);
  if (!turn.is_taken()) {
    return false;
  }
  due_.store(now() + interval_.load(std::memory_order_relaxed), std::memory_order_relaxed);
  const int used = used_.load(std::memory_order_acquire);
  for (int index = first_; index < used; ++index) {
    write(buffers_[index].take());
  }
  return true;
}

// With the turn.
void Tracer::write(std::string_view lines) {
  if (!lines.empty() && is_on() && !file_.write(lines)) {
    is_on_.store(false, std::memory_order_relaxed);
  }
}

// The key's destructor.
void Tracer::end_thread(void* buffer) {
  t_buffer = nullptr;
  if (!g_tracer.is_inherited()) {
    g_tracer.write_full(*static_cast<ThreadBuffer*>(buffer));
    static_cast<ThreadBuffer*>(buffer)->disown();
  }
}

// Waits for at most a second: a thread that writes to a slow disk must not keep the process from
// ending.
void Tracer::finish() noexcept {
  interval_ = 0;
  due_ = 0;
  constexpr timespec kPause{0, 1'000'000};
  for (int attempts = 0; is_on() && !is_inherited() && !try_write_all() && attempts < 1000;
       ++attempts) {
    nanosleep(&kPause, nullptr);
  }
}

// Leaves the buffers that have lines of the parent's threads, which may be half written.
void Tracer::in_child() noexcept {
  first_ = used_.load();
  if (t_buffer != nullptr) {
    t_buffer = nullptr;
    pthread_setspecific(key_, nullptr);
  }
  file_.in_child();
  due_ = 0;
  generation_ = process_generation();
}

}  // namespace tracing
}  // namespace quorvane
