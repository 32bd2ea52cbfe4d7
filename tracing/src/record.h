// The tracer's own record.
#ifndef QUORVANE_TRACING_SRC_RECORD_H_
#define QUORVANE_TRACING_SRC_RECORD_H_

namespace quorvane {
namespace tracing {

// Logs that tracing ends: a WARN record of libQVUtil's internal module, or a line on standard
// error in a process without that library.
void record_end(const char* path, const char* why);

}  // namespace tracing
}  // namespace quorvane

#endif  // QUORVANE_TRACING_SRC_RECORD_H_
