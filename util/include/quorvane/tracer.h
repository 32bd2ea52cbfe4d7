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

namespace quorvane {
namespace trace {

/// What is reported of an operation.
enum class Event : unsigned {
  start = 1543,  ///< it begins
  end = 1544     ///< it has ended, with or without success
};

/// The operations that this library reports. Behind each stands what `a` to `d` of its
/// reports are.
enum class Operation : unsigned {
  store_load = 11,       ///< the store; the bytes read, at the end; null; null
  store_append = 12,     ///< the store; the bytes written, at the end; null; null
  pool_allocate = 14,    ///< the pool; the buffer, at the end; its size; the pool's head
  pool_deallocate = 15,  ///< the pool; the buffer; its size; the pool's head
  pool_free = 16         ///< the pool; the buffer; its size; the pool's tail
};

}  // namespace trace
}  // namespace quorvane

namespace qvtracer {
namespace util {

/// Reports `event` (a quorvane::trace::Event) of the operation `op` (a
/// quorvane::trace::Operation) on behalf of the traced call `rpc` (may be null). `record`
/// is scratch space of the caller. A size is passed as a pointer.
__attribute__((weak, visibility("default"))) void write_trace(const _qv_trace_rpc_t* rpc,
                                                              _qv_trace_rpc_t* record,
                                                              unsigned int event, unsigned int op,
                                                              const void* a, const void* b,
                                                              const void* c, const void* d);

}  // namespace util
}  // namespace qvtracer

#endif  // QUORVANE_TRACER_H_
