/// \file
/// The product's tracer, as far as this library calls it.
///
/// A weak reference: when the process has the tracer at the time this library is
/// loaded (in the executable, a linked library or LD_PRELOAD), it is called;
/// otherwise a report costs the test of a pointer.
#ifndef QUORVANE_TRACER_H_
#define QUORVANE_TRACER_H_

/// Large enough for any tracer's record of one call; the tracer owns its layout.
struct _qv_trace_rpc_t {
  unsigned char bytes[256];  ///< the tracer's
};

namespace qvtracer {
namespace util {

/// Reports `event` (1543 start, 1544 end) of operation `op` on behalf of the
/// traced call `rpc` (may be null). `record` is scratch space of the caller.
__attribute__((weak, visibility("default"))) void write_trace(const _qv_trace_rpc_t* rpc,
                                                              _qv_trace_rpc_t* record,
                                                              unsigned int event, unsigned int op,
                                                              const void* a, const void* b,
                                                              const void* c, const void* d);

}  // namespace util
}  // namespace qvtracer

#endif  // QUORVANE_TRACER_H_
