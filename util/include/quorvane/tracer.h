/// \file
/// The part of the product's tracer that this library calls.
///
/// A weak reference: if the process has the tracer when this library is loaded (in the
/// executable, a linked library or LD_PRELOAD), the library calls it; otherwise a report
/// costs the test of a pointer.
///
/// Thread-safety: up to the tracer; the library calls it in any thread, also with the
/// mutex of a buffer pool or the lock of a store held. Fork-safety: the library calls it
/// in children as well.
#ifndef QUORVANE_TRACER_H_
#define QUORVANE_TRACER_H_

/// A tracer's record of one call. The tracer defines the layout.
// Kept: docs/compatibility.md
struct _qv_trace_rpc_t {
  unsigned char bytes[256];  ///< enough for any tracer
};

namespace quorvane {
namespace trace {

/// The events of an operation.
enum class Event : unsigned {
  start = 1543,  ///< it begins
  end = 1544     ///< it has ended, with or without success
};

/// The operations that this library reports, each with the meaning of `a` to `d` in its
/// reports.
enum class Operation : unsigned {
  store_load = 11,       ///< the store; the bytes read, at the end; null; null
  store_append = 12,     ///< the store; the bytes written, at the end; null; null
  pool_allocate = 14,    ///< the pool; the buffer, at the end; its size; the pool's head
  pool_deallocate = 15,  ///< the pool; the buffer; its size; the pool's head
  pool_free = 16,        ///< the pool; the buffer; its size; the pool's tail

  /// The files of an indexed store; the bytes of both, at the end; null; null.
  store_open = 17,
  /// A look-up that the process's own memory doesn't answer. The files of an indexed store; at the
  /// end, the atoms that were found, or null; null; null.
  store_find = 18,
  /// The files of an indexed store; the entries that are handed over, at the end; null; null.
  store_flush = 19,
  /// What a killed process has left is finished, or an index is made anew. The files of an indexed
  /// store; the bytes of entries that were read for it, at the end; null; null.
  store_recover = 20,
  /// The files of an indexed store; the entries that are kept, at the end; null; null.
  store_clean = 21,
  /// Requests are sent to all servers that they concern, and answered. The servers of a store; the
  /// requests, at the end; null; null.
  remote_round_trip = 22
};

}  // namespace trace
}  // namespace quorvane

namespace qvtracer {
namespace util {

/// Reports `event` (a quorvane::trace::Event) of the operation `op` (a
/// quorvane::trace::Operation) for the traced call `rpc`, which may be null. `record` is
/// scratch space that the caller owns; both reports of one operation share it. A size, in
/// bytes, is passed as a pointer.
__attribute__((weak, visibility("default"))) void write_trace(const _qv_trace_rpc_t* rpc,
                                                              _qv_trace_rpc_t* record,
                                                              unsigned int event, unsigned int op,
                                                              const void* a, const void* b,
                                                              const void* c, const void* d);

}  // namespace util
}  // namespace qvtracer

#endif  // QUORVANE_TRACER_H_
