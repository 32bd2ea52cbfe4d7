// The histograms of statistics reports.
#ifndef TOOLS_QVUTIL_REPORT_HISTOGRAM_H_
#define TOOLS_QVUTIL_REPORT_HISTOGRAM_H_

#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

namespace quorvane::tool {

struct Bucket {
  double bound = 0;  // the upper end; infinity for infinite samples
  std::uint64_t count = 0;
};

// Invariant: the bounds ascend, and the sum of the counts fits into 64 bits.
struct Histogram {
  static constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

  double sum = 0;         // unknown once it has overflowed
  double min = kUnknown;  // no sample is below it
  double max = kUnknown;  // or above it
  std::vector<Bucket> buckets;

  std::uint64_t count() const;
  double mean() const;  // unknown without samples

  // The sample of this rank, from 0 to 1, within 1 %: 0.99 is the 99th percentile. Unknown
  // without samples.
  double percentile(double rank) const;
};

// The samples of `later` that `earlier` didn't have yet. Nothing if `earlier` isn't an earlier
// state of it: a count went down.
std::optional<Histogram> difference(const Histogram& later, const Histogram& earlier);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_HISTOGRAM_H_
