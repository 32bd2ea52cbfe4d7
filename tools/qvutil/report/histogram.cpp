#include "qvutil/report/histogram.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace quorvane::tool {
namespace {

// Within 1 % of every sample in the bucket that has this bound.
double sample_of(double bound) {
  if (!std::isfinite(bound) || bound == std::numeric_limits<double>::lowest()) {
    return bound;
  }
  return bound > 0 ? bound * 127 / 128 : bound * 129 / 128;
}

}  // namespace

std::uint64_t Histogram::count() const {
  std::uint64_t count = 0;
  for (const Bucket& bucket : buckets) {
    count += bucket.count;
  }
  return count;
}

double Histogram::mean() const {
  const std::uint64_t samples = count();
  return samples == 0 ? kUnknown : sum / static_cast<double>(samples);
}

double Histogram::percentile(double rank) const {
  const std::uint64_t samples = count();
  if (samples == 0) {
    return kUnknown;
  }
  const double wanted = std::max(1.0, std::ceil(rank * static_cast<double>(samples)));
  double seen = 0;
  double sample = kUnknown;
  for (const Bucket& bucket : buckets) {
    if (bucket.count == 0) {
      continue;
    }
    sample = sample_of(bucket.bound);
    seen += static_cast<double>(bucket.count);
    if (seen >= wanted) {
      break;
    }
  }
  // fmin and fmax ignore what is unknown.
  return std::fmin(std::fmax(sample, min), max);
}

std::optional<Histogram> difference(const Histogram& later, const Histogram& earlier) {
  Histogram added;
  std::size_t next = 0;
  for (const Bucket& bucket : later.buckets) {
    std::uint64_t before = 0;
    if (next < earlier.buckets.size() && earlier.buckets[next].bound == bucket.bound) {
      before = earlier.buckets[next++].count;
    }
    if (before > bucket.count) {
      return std::nullopt;
    }
    if (before < bucket.count) {
      added.buckets.push_back({bucket.bound, bucket.count - before});
    }
  }
  if (next < earlier.buckets.size()) {
    return std::nullopt;  // a bucket has disappeared
  }
  if (added.buckets.empty()) {
    return added;
  }
  added.sum = later.sum - earlier.sum;
  added.min = later.min;
  added.max = later.max;
  const double lowest = added.percentile(0);
  const double highest = added.percentile(1);
  added.min = lowest;
  added.max = highest;
  return added;
}

}  // namespace quorvane::tool
