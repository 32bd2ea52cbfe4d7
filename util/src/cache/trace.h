// What the stores report to the product's tracer, when the process has one.
#ifndef QUORVANE_SRC_CACHE_TRACE_H_
#define QUORVANE_SRC_CACHE_TRACE_H_

#include <cstdint>

#include <quorvane/tracer.h>

namespace quorvane {
namespace cache {

enum class TraceCategory : unsigned { load = 11, append = 12 };

// One operation of a store: its start on construction, its end, with the bytes
// that it went through, on end().
class Trace {
 public:
  Trace(const void* store, TraceCategory category) : store_(store), category_(category) {
    report(1543, 0);
  }
  void end(std::uint64_t bytes) { report(1544, bytes); }

 private:
  void report(unsigned event, std::uint64_t bytes) {
    if (&qvtracer::util::write_trace != nullptr) {
      qvtracer::util::write_trace(nullptr, &record_, event, static_cast<unsigned>(category_),
                                  store_, reinterpret_cast<const void*>(bytes), nullptr, nullptr);
    }
  }

  const void* store_;
  TraceCategory category_;
  _qv_trace_rpc_t record_;
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_TRACE_H_
