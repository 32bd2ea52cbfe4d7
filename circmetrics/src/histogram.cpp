#include "histogram.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <new>

#include "json_writer.h"

namespace circmetrics {
namespace {

constexpr int kFractionBits = 52;
constexpr int kBucketBits = 6;
constexpr std::uint64_t kLastBucket = (1U << kBucketBits) - 1;
constexpr std::uint64_t kBucketWidth = std::uint64_t{1} << (kFractionBits - kBucketBits);
constexpr std::uint64_t kSign = std::uint64_t{1} << 63;
constexpr std::uint64_t kSmallestNormal = std::uint64_t{1} << kFractionBits;

// The octaves, by sign and exponent. Doubles below 2^-1022 have all the same exponent,
// that of zero: their own octaves, by the place of the leading one, come after.
constexpr std::size_t kZero = 0;
constexpr std::size_t kNegative = 2048;
constexpr std::size_t kSubnormal = 4096;
constexpr std::size_t kNegativeSubnormal = kSubnormal + 64;

// The node that `link` leads to, made when there is none.
template <typename Node>
Node* find_or_make(std::atomic<Node*>& link) {
  Node* found = link.load(std::memory_order_acquire);
  if (found != nullptr) {
    return found;
  }
  Node* made = new (std::nothrow) Node;
  if (made == nullptr || link.compare_exchange_strong(found, made, std::memory_order_acq_rel,
                                                      std::memory_order_acquire)) {
    return made;
  }
  delete made;  // another thread was first
  return found;
}

template <typename Better>
void keep_best(std::atomic<double>& best, double value, Better is_better) {
  double known = best.load(std::memory_order_relaxed);
  while (is_better(value, known) &&
         !best.compare_exchange_weak(known, value, std::memory_order_relaxed)) {
  }
}

// Across all octaves.
std::size_t bucket_index(double value) {
  const auto bits = std::bit_cast<std::uint64_t>(value);
  const std::uint64_t magnitude = bits & ~kSign;
  if (magnitude == 0 || magnitude >= kSmallestNormal) {
    return bits / kBucketWidth;
  }
  const int leading = static_cast<int>(std::bit_width(magnitude)) - 1;
  const std::uint64_t first_bits = leading < kBucketBits ? magnitude << (kBucketBits - leading)
                                                         : magnitude >> (leading - kBucketBits);
  const std::size_t octave =
      (bits == magnitude ? kSubnormal : kNegativeSubnormal) + static_cast<std::size_t>(leading);
  return (octave << kBucketBits) + (first_bits & kLastBucket);
}

// Below 2^-1067 a bucket holds one double or none.
double middle_of_subnormals(std::size_t octave, std::size_t bucket) {
  const std::uint64_t sign = octave < kNegativeSubnormal ? 0 : kSign;
  const auto leading = static_cast<int>((octave - kSubnormal) % 64);
  const std::uint64_t first_bits = kLastBucket + 1 + bucket;
  if (leading <= kBucketBits) {
    return std::bit_cast<double>(sign | first_bits >> (kBucketBits - leading));
  }
  const int rest = leading - kBucketBits;
  return std::bit_cast<double>(sign | first_bits << rest | std::uint64_t{1} << (rest - 1));
}

// Infinity has no middle, and zero is none.
double middle_of(std::size_t octave, std::size_t bucket) {
  if (octave >= kSubnormal) {
    return middle_of_subnormals(octave, bucket);
  }
  const std::uint64_t lowest =
      (static_cast<std::uint64_t>(octave) << kFractionBits) + bucket * kBucketWidth;
  const double bound = std::bit_cast<double>(lowest);
  return std::isnormal(bound) ? std::bit_cast<double>(lowest + kBucketWidth / 2) : bound + 0.0;
}

// value * 10^scale. Doubles hold the powers up to 10^22 exactly, so a usual scale
// costs one rounding and no call.
double scaled(std::int64_t value, std::int32_t scale) {
  static constexpr double kPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                       1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                       1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
  constexpr std::int32_t kLargest = 22;
  const auto number = static_cast<double>(value);
  if (scale >= 0 && scale <= kLargest) {
    return number * kPowers[scale];
  }
  if (scale < 0 && scale >= -kLargest) {
    return number / kPowers[-scale];
  }
  return value == 0 ? 0.0 : static_cast<double>(value * std::pow(10.0L, scale));
}

}  // namespace

Histogram::Group::~Group() {
  for (auto& octave : octaves) {
    delete octave.load(std::memory_order_relaxed);
  }
}

Histogram::~Histogram() {
  for (auto& group : groups_) {
    delete group.load(std::memory_order_relaxed);
  }
}

Histogram::Count* Histogram::find_or_make_bucket(double value) {
  const std::size_t index = bucket_index(value);
  Group* group = find_or_make(groups_[index / kFanOut / kFanOut]);
  Octave* octave =
      group == nullptr ? nullptr : find_or_make(group->octaves[index / kFanOut % kFanOut]);
  return octave == nullptr ? nullptr : &octave->buckets[index % kFanOut];
}

bool Histogram::insert(double value, std::uint32_t count) {
  if (std::isnan(value)) {
    return false;
  }
  if (count == 0) {
    return true;
  }
  Count* bucket = find_or_make_bucket(value);
  if (bucket == nullptr) {
    return false;
  }
  keep_best(min_, value, [](double a, double b) { return a < b; });
  keep_best(max_, value, [](double a, double b) { return a > b; });
  sum_.fetch_add(value * count, std::memory_order_relaxed);
  // Last: whoever sees the sample counted sees it in min and max as well.
  bucket->fetch_add(count, std::memory_order_release);
  return true;
}

bool Histogram::insert_scaled(std::int64_t value, std::int32_t scale, std::uint32_t count) {
  return insert(scaled(value, scale), count);
}

void Histogram::append_octave(Snapshot& filled, std::size_t octave) const {
  const Group* group = groups_[octave / kFanOut].load(std::memory_order_acquire);
  const Octave* found =
      group == nullptr ? nullptr : group->octaves[octave % kFanOut].load(std::memory_order_acquire);
  for (std::size_t bucket = 0; found != nullptr && bucket < kFanOut; ++bucket) {
    if (const std::uint64_t count = found->buckets[bucket].load(std::memory_order_acquire)) {
      filled.push_back({middle_of(octave, bucket), count});
    }
  }
}

void Histogram::append_octaves(Snapshot& filled, std::size_t first, std::size_t end) const {
  for (std::size_t octave = first; octave < end; ++octave) {
    append_octave(filled, octave);
  }
}

Histogram::Snapshot Histogram::snapshot() const {
  constexpr std::size_t kSubnormalOctaves = kFractionBits;
  Snapshot filled;
  append_octaves(filled, kNegative, kNegative + 1);
  append_octaves(filled, kNegativeSubnormal, kNegativeSubnormal + kSubnormalOctaves);
  append_octaves(filled, kNegative + 1, kSubnormal);
  // Doubles below zero have the order of their magnitudes: the other way round.
  std::reverse(filled.begin(), filled.end());
  append_octaves(filled, kZero, kZero + 1);
  append_octaves(filled, kSubnormal, kSubnormal + kSubnormalOctaves);
  append_octaves(filled, kZero + 1, kNegative);
  return filled;
}

namespace {

// The sample of rank ceil(fraction * total).
template <typename Snapshot>
double percentile(const Snapshot& filled, std::uint64_t total, double fraction) {
  const double rank = std::max(1.0, std::ceil(fraction * static_cast<double>(total)));
  double below = 0;
  for (const auto& bucket : filled) {
    below += static_cast<double>(bucket.count);
    if (below >= rank) {
      return bucket.middle;
    }
  }
  return filled.back().middle;
}

void write_member(JsonWriter& json, const char* key, double value) {
  json.key(key);
  json.number(value);
}

}  // namespace

void Histogram::write(JsonWriter& json) const {
  const Snapshot filled = snapshot();
  std::uint64_t total = 0;
  for (const Filled& bucket : filled) {
    total += bucket.count;
  }
  const double none = std::numeric_limits<double>::quiet_NaN();
  const double sum = sum_.load(std::memory_order_relaxed);
  const double min = total == 0 ? none : min_.load(std::memory_order_relaxed);
  const double max = total == 0 ? none : max_.load(std::memory_order_relaxed);
  json.begin_object();
  json.key("count");
  json.number(total);
  write_member(json, "sum", sum);
  write_member(json, "min", min);
  write_member(json, "max", max);
  write_member(json, "mean", total == 0 ? none : sum / static_cast<double>(total));
  static constexpr struct {
    const char* key;
    double fraction;
  } kPercentiles[] = {{"p50", 0.5}, {"p90", 0.9}, {"p99", 0.99}, {"p99.9", 0.999}};
  for (const auto& [key, fraction] : kPercentiles) {
    // A bucket's middle may lie beyond the samples in it.
    write_member(json, key,
                 total == 0 ? none : std::clamp(percentile(filled, total, fraction), min, max));
  }
  json.end_object();
}

}  // namespace circmetrics
