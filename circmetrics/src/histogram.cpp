#include "histogram.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <iterator>
#include <new>

#include "json_writer.h"
#include "kept_words.h"

namespace circmetrics {
namespace {

constexpr int kFractionBits = 52;
constexpr int kBucketBits = 6;
constexpr std::uint64_t kLastBucket = (1U << kBucketBits) - 1;
constexpr std::uint64_t kBucketWidth = std::uint64_t{1} << (kFractionBits - kBucketBits);
constexpr std::uint64_t kSign = std::uint64_t{1} << 63;
constexpr std::uint64_t kSmallestNormal = std::uint64_t{1} << kFractionBits;
constexpr std::uint64_t kInfinity = 2047 * kSmallestNormal;

// Octaves are numbered by sign and exponent. Doubles below 2^-1022 all have the exponent
// of zero: their octaves follow, numbered by the position of the leading one bit.
constexpr std::size_t kSubnormal = 4096;
constexpr std::size_t kNegativeSubnormal = kSubnormal + 64;

// The node that `link` points to, made if there is none; null when out of memory.
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

// The magnitudes in a bucket, as the bits of doubles.
struct Range {
  bool is_negative;
  std::uint64_t lowest;
  std::uint64_t width;  // 0 for zero and infinity
};

// Below 2^-1067 a bucket holds at most one double.
Range range_of_subnormals(std::size_t octave, std::size_t bucket) {
  const bool is_negative = octave >= kNegativeSubnormal;
  const int rest = static_cast<int>((octave - kSubnormal) % 64) - kBucketBits;
  const std::uint64_t first_bits = kLastBucket + 1 + bucket;
  if (rest <= 0) {
    return {is_negative, first_bits >> -rest, 1};
  }
  return {is_negative, first_bits << rest, std::uint64_t{1} << rest};
}

Range range_of(std::size_t index) {
  const std::size_t octave = index >> kBucketBits;
  if (octave >= kSubnormal) {
    return range_of_subnormals(octave, index & kLastBucket);
  }
  const std::uint64_t bits = index * kBucketWidth;
  const std::uint64_t lowest = bits & ~kSign;
  const bool is_one_value = lowest == 0 || lowest == kInfinity;
  return {bits != lowest, lowest, is_one_value ? 0 : kBucketWidth};
}

double middle_of(const Range& range) {
  const double magnitude = std::bit_cast<double>(range.lowest + range.width / 2);
  return range.is_negative ? 0.0 - magnitude : magnitude;
}

// No sample in the bucket is greater. Infinite only for the bucket of positive infinity, so that
// no other bucket has the same bound.
double upper_bound_of(const Range& range) {
  constexpr double kLargest = std::numeric_limits<double>::max();
  const double bound = range.is_negative ? 0.0 - std::bit_cast<double>(range.lowest)
                                         : std::bit_cast<double>(range.lowest + range.width);
  const bool is_infinity = !range.is_negative && range.lowest == kInfinity;
  return is_infinity ? bound : std::clamp(bound, -kLargest, kLargest);
}

// Through decimal text, since the C++ library parses that to the nearest double.
double parsed(std::int64_t value, std::int32_t scale) {
  constexpr int kLongestValue = 20;
  char text[kLongestValue + 20];
  char* end = std::to_chars(text, text + kLongestValue, value).ptr;
  *end++ = 'e';
  end = std::to_chars(end, std::end(text), scale).ptr;
  double result = 0;
  const bool fits = std::from_chars(text, end, result).ec == std::errc();
  return fits || scale < 0 ? result : std::copysign(HUGE_VAL, static_cast<double>(value));
}

// value * 10^scale, rounded once. Doubles hold integers up to 2^53 and powers of ten up to
// 10^22 exactly, so these take one operation.
double scaled(std::int64_t value, std::int32_t scale) {
  static constexpr double kPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                       1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                       1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
  constexpr std::int64_t kLargest = std::int64_t{1} << 53;
  constexpr std::int32_t kLargestScale = 22;
  if (value < -kLargest || value > kLargest || scale < -kLargestScale || scale > kLargestScale) {
    return parsed(value, scale);
  }
  const auto number = static_cast<double>(value);
  return scale < 0 ? number / kPowers[-scale] : number * kPowers[scale];
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
  // Last: a reader that sees the sample in the count sees it in min and max too.
  bucket->fetch_add(count, std::memory_order_release);
  return true;
}

// Refuses a product beyond the range of double: it would become an infinity, which the
// caller didn't pass and which makes the sum and the mean null for good.
bool Histogram::insert_scaled(std::int64_t value, std::int32_t scale, std::uint32_t count) {
  const double sample = scaled(value, scale);
  return std::isfinite(sample) && insert(sample, count);
}

// Calls visit(index, count) for each bucket that has samples, in the order of the indices.
template <typename Visit>
void Histogram::visit_filled(Visit visit) const {
  for (std::size_t top = 0; top < kGroups; ++top) {
    const Group* group = groups_[top].load(std::memory_order_acquire);
    for (std::size_t middle = 0; group != nullptr && middle < kFanOut; ++middle) {
      const Octave* octave = group->octaves[middle].load(std::memory_order_acquire);
      for (std::size_t last = 0; octave != nullptr && last < kFanOut; ++last) {
        if (const std::uint64_t count = octave->buckets[last].load(std::memory_order_acquire)) {
          visit((top * kFanOut + middle) * kFanOut + last, count);
        }
      }
    }
  }
}

// Zeros of both signs have the same bound.
void Histogram::State::add(std::size_t index, std::uint64_t count) {
  const Range range = range_of(index);
  Filled& bucket = filled[upper_bound_of(range)];
  bucket.middle = middle_of(range);
  bucket.count += count;
}

// The buckets first: a sample that is in the count is then in the other values, too.
Histogram::State Histogram::state() const {
  State state;
  visit_filled([&](std::size_t index, std::uint64_t count) { state.add(index, count); });
  state.sum = sum_.load(std::memory_order_relaxed);
  state.min = min_.load(std::memory_order_relaxed);
  state.max = max_.load(std::memory_order_relaxed);
  return state;
}

namespace {

// The sample of rank ceil(total * permille / 1000). In integers, since a double doesn't
// hold every rank.
template <typename Filled>
double percentile(const Filled& filled, std::uint64_t total, std::uint64_t permille) {
  const std::uint64_t rank = total / 1000 * permille + (total % 1000 * permille + 999) / 1000;
  std::uint64_t below = 0;
  for (const auto& [bound, bucket] : filled) {
    below += bucket.count;
    if (below >= rank) {
      return bucket.middle;
    }
  }
  return filled.rbegin()->second.middle;
}

constexpr struct {
  const char* key;
  std::uint64_t permille;
} kPercentiles[] = {{"p50", 500}, {"p90", 900}, {"p99", 990}, {"p99.9", 999}};

void write_member(JsonWriter& json, const char* key, double value) {
  json.key(key);
  json.number(value);
}

template <typename Filled>
void write_buckets(JsonWriter& json, const Filled& filled) {
  json.key("buckets");
  json.begin_array();
  for (const auto& [bound, bucket] : filled) {
    json.next_element();
    json.begin_array();
    json.next_element();
    json.number(bound);
    json.next_element();
    json.number(bucket.count);
    json.end_array();
  }
  json.end_array();
}

}  // namespace

void Histogram::State::write(JsonWriter& json) const {
  std::uint64_t total = 0;
  for (const auto& [bound, bucket] : filled) {
    total += bucket.count;
  }
  const double none = std::numeric_limits<double>::quiet_NaN();
  // Adding 0.0 turns -0.0 into 0.0: the sign of a zero means nothing here.
  const double lowest = total == 0 ? none : min + 0.0;
  const double highest = total == 0 ? none : max + 0.0;
  json.begin_object();
  json.key("count");
  json.number(total);
  write_member(json, "sum", sum);
  write_member(json, "min", lowest);
  write_member(json, "max", highest);
  // Clamped to the samples: rounding in the sum may take the mean beyond them, as the
  // middle of a bucket may a percentile.
  const double mean = total == 0 ? none : sum / static_cast<double>(total);
  write_member(json, "mean", std::isfinite(mean) ? std::clamp(mean, lowest, highest) : none);
  for (const auto& [key, permille] : kPercentiles) {
    write_member(
        json, key,
        total == 0 ? none : std::clamp(percentile(filled, total, permille), lowest, highest));
  }
  write_buckets(json, filled);
  json.end_object();
}

void Histogram::write(JsonWriter& json) const { state().write(json); }

void Histogram::keep(KeptWords& words) const {
  for (const auto* value : {&sum_, &min_, &max_}) {
    words.add(std::bit_cast<std::uint64_t>(value->load(std::memory_order_relaxed)));
  }
  visit_filled([&](std::size_t index, std::uint64_t count) {
    words.add(index);
    words.add(count);
  });
}

void Histogram::write_kept(JsonWriter& json, std::span<const std::uint64_t> words) const {
  State state;
  state.sum = std::bit_cast<double>(words[0]);
  state.min = std::bit_cast<double>(words[1]);
  state.max = std::bit_cast<double>(words[2]);
  for (std::size_t next = 3; next < words.size(); next += 2) {
    state.add(words[next], words[next + 1]);
  }
  state.write(json);
}

}  // namespace circmetrics
