// Collects the events of all threads.
#ifndef QUORVANE_TRACING_SRC_TRACER_H_
#define QUORVANE_TRACING_SRC_TRACER_H_

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "src/cache/flush_turn.h"
#include "src/line.h"
#include "src/thread_buffer.h"
#include "src/trace_file.h"

namespace quorvane {
namespace tracing {

// A thread formats its events into a buffer of its own. It writes that to the file when it is
// full. Every 10 ms, whichever thread has an event next writes what all threads have: so the
// file is never far behind, even where most threads have nothing to do.
//
// Its destructor does nothing: a library may report events from its own.
//
// Fork-safety: a child begins with empty buffers and a file of its own.
class Tracer {
 public:
  // The only one.
  static Tracer& get();

  // `name`: of the file. Once in a process and its children.
  void start(const char* name) noexcept;

  bool is_on() const { return is_on_.load(std::memory_order_relaxed); }

  // Any thread. Keeps errno.
  void add(const Span& span) noexcept;

  // At exit: from now on every event is written at once.
  void finish() noexcept;

  // In the child's fork handler.
  void in_child() noexcept;

 private:
  constexpr Tracer() = default;

  bool is_inherited() const;
  ThreadBuffer* own_buffer();
  void write_alone(const Span& span);
  void write_full(ThreadBuffer& buffer);
  bool try_write_all();
  void write(std::string_view lines);
  static void end_thread(void* buffer);

  static Tracer g_tracer;

  std::atomic<bool> is_on_{false};
  std::atomic<std::uint64_t> generation_{0};
  std::atomic<std::uint64_t> interval_{0};
  std::atomic<std::uint64_t> due_{0};  // when the buffers are written next
  std::atomic<int> first_{0};          // the buffers before it are an ancestor's
  std::atomic<int> used_{0};           // so many buffers, the first ones, have had a thread
  ThreadBuffer* buffers_ = nullptr;
  pthread_key_t key_ = 0;
  cache::FlushTurn::State turn_{0};
  TraceFile file_;  // with the turn
};

// The time of the events, in ns: one for all processes of a machine.
std::uint64_t now();

}  // namespace tracing
}  // namespace quorvane

#endif  // QUORVANE_TRACING_SRC_TRACER_H_
