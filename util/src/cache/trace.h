// What stores report to the product's tracer, if the process has one.
#ifndef QUORVANE_SRC_CACHE_TRACE_H_
#define QUORVANE_SRC_CACHE_TRACE_H_

#include <cerrno>
#include <cstdint>

#include <quorvane/tracer.h>

namespace quorvane {
namespace cache {

// One operation of a store. The constructor reports its start; end() reports its end with
// the number of bytes that it read or wrote, or another count that quorvane/tracer.h names.
class Trace {
 public:
  Trace(const void* store, trace::Operation operation) : store_(store), operation_(operation) {
    report(trace::Event::start, 0);
  }
  void end(std::uint64_t count) { report(trace::Event::end, count); }

  // Whether the process has a tracer.
  static bool is_on() { return &qvtracer::util::write_trace != nullptr; }

 private:
  void report(trace::Event event, std::uint64_t count) {
    if (is_on()) {
      const int error = errno;
      qvtracer::util::write_trace(nullptr, &record_, static_cast<unsigned>(event),
                                  static_cast<unsigned>(operation_), store_,
                                  reinterpret_cast<const void*>(count), nullptr, nullptr);
      errno = error;
    }
  }

  const void* store_;
  trace::Operation operation_;
  _qv_trace_rpc_t record_;
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_TRACE_H_
