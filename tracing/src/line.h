// One event as a line of a trace file.
#ifndef QUORVANE_TRACING_SRC_LINE_H_
#define QUORVANE_TRACING_SRC_LINE_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace quorvane {
namespace tracing {

// What the end of an operation reported. Times are those of CLOCK_MONOTONIC, in ns.
struct Span {
  std::uint64_t start;
  std::uint64_t end;
  unsigned operation;
  const void* rpc;
  const void* a;
  const void* b;
  const void* c;
  const void* d;
};

// More than any line has.
constexpr std::size_t kMostLine = 512;

// What the file begins with. Each further line begins with a comma: so after any of them, a "]"
// makes the file valid JSON. Viewers don't need it.
constexpr std::string_view kTraceStart = "[{\"ph\":\"M\",\"pid\":";

// What every line ends with, and nothing else.
constexpr std::string_view kLineEnd = "}\n";

// What all lines of a thread begin with.
class LineStart {
 public:
  LineStart() = default;
  LineStart(pid_t process, pid_t thread);

  // `to` has kMostLine bytes. Returns the end.
  char* copy_to(char* to) const;

 private:
  char bytes_[56] = {};
  std::size_t size_ = 0;
};

// Writes the line of a complete event ("ph":"X"), with its newline. `to` has kMostLine bytes.
// Returns the end of the line.
char* write_line(char* to, const LineStart& start, const Span& span);

// The line that gives a process its name in viewers. The first line of a file is one.
char* write_process_name(char* to, bool is_first, pid_t process, const char* name);

}  // namespace tracing
}  // namespace quorvane

#endif  // QUORVANE_TRACING_SRC_LINE_H_
