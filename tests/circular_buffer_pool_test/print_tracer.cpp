// A tracer that prints each report, for programs without one.
#include <quorvane/tracer.h>

#include <cstdint>
#include <cstdio>

void qvtracer::util::write_trace(const _qv_trace_rpc_t*, _qv_trace_rpc_t*, unsigned int event,
                                 unsigned int op, const void*, const void*, const void* c,
                                 const void*) {
  std::printf("%u %u %zu\n", event, op, reinterpret_cast<std::uintptr_t>(c));
}
