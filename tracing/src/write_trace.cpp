// The function that libQVUtil calls.
#include <pthread.h>
#include <quorvane/tracer.h>

#include <cstdlib>
#include <cstring>

#include "src/once.h"
#include "src/tracer.h"

namespace quorvane {
namespace tracing {
namespace {

constinit Once g_start;

// A library that is initialised before this one may already report events.
Tracer& started() {
  Tracer& tracer = Tracer::get();
  g_start.run([&tracer] {
    const char* const name = secure_getenv("QV_TRACE_FILE");
    if (name != nullptr && *name != '\0') {
      pthread_atfork(nullptr, nullptr, [] { Tracer::get().in_child(); });
      tracer.start(name);
    }
  });
  return tracer;
}

[[gnu::constructor]] void at_load() { started(); }

[[gnu::destructor]] void at_exit() { Tracer::get().finish(); }

}  // namespace
}  // namespace tracing
}  // namespace quorvane

// The start of an operation only leaves its time in the record. So an operation without an end,
// as an exception leaves it, isn't in the trace, and the spans of a thread nest.
void qvtracer::util::write_trace(const _qv_trace_rpc_t* rpc, _qv_trace_rpc_t* record,
                                 unsigned int event, unsigned int op, const void* a, const void* b,
                                 const void* c, const void* d) {
  using quorvane::trace::Event;
  quorvane::tracing::Tracer& tracer = quorvane::tracing::started();
  if (!tracer.is_on()) {
    return;
  }
  const std::uint64_t now = quorvane::tracing::now();
  if (event == static_cast<unsigned>(Event::start)) {
    std::memcpy(record->bytes, &now, sizeof(now));
  } else if (event == static_cast<unsigned>(Event::end)) {
    std::uint64_t start;
    std::memcpy(&start, record->bytes, sizeof(start));
    tracer.add({start, now, op, rpc, a, b, c, d});
  }
}
