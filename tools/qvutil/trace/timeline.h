// What a picture of traces shows: the longest spans, by process and thread.
#ifndef TOOLS_QVUTIL_TRACE_TIMELINE_H_
#define TOOLS_QVUTIL_TRACE_TIMELINE_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "qvutil/trace/reader.h"

namespace quorvane::tool {

struct Span {
  std::int64_t start = 0;  // in ns
  std::int64_t duration = 0;
  std::string name;
  std::string arguments;  // an object of JSON
  int depth = 0;          // how many spans it lies within
};

struct Lane {
  std::int64_t pid = 0;
  std::int64_t tid = 0;
  std::string process;  // its name
  std::vector<Span> spans;
  int depth = 1;  // of the deepest span, plus 1
};

struct Picture {
  std::int64_t start = 0;  // of all spans, in ns
  std::int64_t end = 0;
  std::vector<Lane> lanes;           // by process, and by the start of its first span
  std::vector<std::string> names;    // of the spans, by total time
  std::uint64_t spans_left_out = 0;  // shorter than all that are there, or too deep
};

// Takes any number of events, and keeps a bounded number of them.
class Timeline {
 public:
  explicit Timeline(std::size_t most_spans = 2000, std::size_t most_lanes = 40)
      : most_spans_(most_spans), most_lanes_(most_lanes) {}

  void add(const TraceEvent& event);
  Picture picture() const;

 private:
  using LaneId = std::pair<std::int64_t, std::int64_t>;  // process, thread
  using Kept = std::pair<Span, LaneId>;

  std::size_t most_spans_;
  std::size_t most_lanes_;
  std::vector<Kept> kept_;  // a heap with the shortest span on top
  std::map<std::int64_t, std::string> process_names_;
  std::uint64_t spans_ = 0;
  std::int64_t start_ = 0;
  std::int64_t end_ = 0;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_TRACE_TIMELINE_H_
