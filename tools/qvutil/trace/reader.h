// The events of a trace file.
#ifndef TOOLS_QVUTIL_TRACE_READER_H_
#define TOOLS_QVUTIL_TRACE_READER_H_

#include <cstdint>
#include <fstream>
#include <optional>
#include <string>

#include "qvutil/output/progress.h"

namespace quorvane::tool {

struct TraceEvent {
  std::string json;  // the object, as it is in the file
  bool is_span = false;
  bool names_process = false;
  std::int64_t pid = 0;
  std::int64_t tid = 0;
  std::int64_t start = 0;     // of a span, in ns
  std::int64_t duration = 0;  // likewise
  std::string name;           // of the span, or of the process
  std::string arguments;      // of a span: an object
};

// Reads what libqvtrace.so writes, one event on a line, and such an array that is closed.
class TraceReader {
 public:
  // Throws Failure if the file can't be read, or is no trace.
  TraceReader(Console& console, const std::string& path);

  // Nothing at the end. Lines that are no events are left out, and so is half a line at the end.
  // Throws Failure if the file can't be read further.
  std::optional<TraceEvent> next();

  std::uint64_t damaged_lines() const { return damaged_lines_; }
  bool is_cut_short() const { return is_cut_short_; }

 private:
  bool next_line();

  std::string path_;
  std::ifstream in_;
  Progress progress_;
  std::uint64_t done_ = 0;  // bytes
  std::string line_;
  bool is_too_long_ = false;
  std::uint64_t damaged_lines_ = 0;
  bool is_cut_short_ = false;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_TRACE_READER_H_
