#include "qvutil/report/intervals.h"

#include <utility>

namespace quorvane::tool {

std::optional<Interval> Intervals::next(Report report, std::size_t size) {
  const Report* begin = begins_.last_of(report.process);
  types_.see(report, begin);
  std::optional<Interval> interval;
  if (begin != nullptr) {
    if (begin->time == report.time && !has_begun_anew(*begin, report)) {
      return std::nullopt;
    }
    interval = interval_between(*begin, report);
  } else if (from_start_) {
    interval = interval_to(report);
  }
  begins_.keep(std::move(report), size);
  return interval;
}

}  // namespace quorvane::tool
