// How often and how long each operation ran.
#ifndef TOOLS_QVUTIL_TRACE_SUMMARY_H_
#define TOOLS_QVUTIL_TRACE_SUMMARY_H_

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "qvutil/trace/reader.h"

namespace quorvane::tool {

// The durations of the spans of one name, in ns. Memory doesn't grow with their number.
class Durations {
 public:
  void add(std::int64_t duration);

  std::uint64_t count() const { return count_; }
  double total() const { return total_; }
  double mean() const { return total_ / static_cast<double>(count_); }
  std::int64_t max() const { return max_; }
  // The time that 99 of 100 spans don't exceed: exact up to 255 ns, else within 1 %.
  std::int64_t p99() const;

 private:
  std::uint64_t count_ = 0;
  double total_ = 0;
  std::int64_t max_ = 0;
  std::map<std::int64_t, std::uint64_t> counts_;  // by the greatest duration of the bucket
};

class TraceSummary {
 public:
  void add(const TraceEvent& event);

  // By total time, the longest first.
  std::vector<std::pair<std::string, const Durations*>> rows() const;

 private:
  std::map<std::string, Durations> by_name_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_TRACE_SUMMARY_H_
