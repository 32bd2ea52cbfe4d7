#include "qvutil/commands/top.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>

#include "qvutil/output/json.h"
#include "qvutil/output/table.h"
#include "qvutil/output/text.h"
#include "qvutil/store/each_entry.h"

namespace quorvane::tool {
namespace {

constexpr std::size_t kBarColumns = 40;

// Sizes by powers of two.
struct Histogram {
  struct Bucket {
    std::uint64_t entries = 0;
    std::uint64_t bytes = 0;
  };

  void add(std::uint64_t size) {
    Bucket& bucket = buckets[static_cast<std::size_t>(std::bit_width(size)) - 1];
    ++bucket.entries;
    bucket.bytes += size;
    bytes += size;
  }

  std::array<Bucket, 64> buckets;  // from 2^i on
  std::uint64_t bytes = 0;
};

struct Large {
  std::string key;
  std::uint64_t size;
  std::uint64_t atoms;
};

bool is_larger(const Large& one, const Large& other) {
  return one.size != other.size ? one.size > other.size : one.key < other.key;
}

class Summary {
 public:
  explicit Summary(std::uint64_t largest) : most_(largest) {}

  void add(const Entry& entry) {
    const std::uint64_t size = value_size(entry);
    ++entries;
    keys.add(entry.key.size());
    values.add(size);
    if (most_ != 0 && (largest_.size() < most_ || size > largest_.front().size)) {
      keep({std::string(entry.key), size, entry.atoms.size()});
    }
  }

  std::vector<Large> largest() {
    std::sort(largest_.begin(), largest_.end(), &is_larger);
    return std::move(largest_);
  }

  std::uint64_t entries = 0;
  Histogram keys;
  Histogram values;

 private:
  // A heap with the smallest in front.
  void keep(Large large) {
    if (largest_.size() == most_) {
      std::pop_heap(largest_.begin(), largest_.end(), &is_larger);
      largest_.pop_back();
    }
    largest_.push_back(std::move(large));
    std::push_heap(largest_.begin(), largest_.end(), &is_larger);
  }

  std::uint64_t most_;
  std::vector<Large> largest_;
};

std::string range_text(std::size_t power) {
  const std::uint64_t from = std::uint64_t{1} << power;
  const std::uint64_t to = from + (from - 1);
  return from == to ? "1 B" : grouped(from) + " to " + grouped(to) + " B";
}

std::string bar(std::uint64_t part, std::uint64_t most) {
  const double share = static_cast<double>(part) / static_cast<double>(most);
  const auto columns = static_cast<std::size_t>(std::lround(share * kBarColumns));
  return std::string(std::max<std::size_t>(columns, 1), '#');
}

void print(Console& console, const char* heading, const Histogram& histogram) {
  using Align = Table::Align;
  const auto& buckets = histogram.buckets;
  std::uint64_t most = 1;
  for (const Histogram::Bucket& bucket : buckets) {
    most = std::max(most, bucket.bytes);
  }
  Table table({{heading, Align::right}, {"ENTRIES", Align::right}, {"BYTES", Align::right}, {""}});
  for (std::size_t power = 0; power < buckets.size(); ++power) {
    if (buckets[power].entries != 0) {
      table.row({range_text(power), grouped(buckets[power].entries),
                 size_text(buckets[power].bytes), bar(buckets[power].bytes, most)});
    }
  }
  table.print(console);
  console.out() << '\n';
}

void print(Console& console, const std::vector<Large>& largest, bool as_hex) {
  using Align = Table::Align;
  Table table({{"LARGEST", Align::right}, {"ATOMS", Align::right}, {"KEY"}});
  for (const Large& large : largest) {
    table.row(
        {size_text(large.size), grouped(large.atoms), as_hex ? hex(large.key) : shown(large.key)});
  }
  table.print(console);
}

void print_json_buckets(Console& console, const char* what, const Histogram& histogram) {
  for (std::size_t power = 0; power < histogram.buckets.size(); ++power) {
    const Histogram::Bucket& bucket = histogram.buckets[power];
    if (bucket.entries != 0) {
      print_json(console, {{"of", what},
                           {"from", std::uint64_t{1} << power},
                           {"entries", bucket.entries},
                           {"bytes", bucket.bytes}});
    }
  }
}

void print_as_json(Console& console, Summary& summary, bool as_hex) {
  print_json_buckets(console, "keys", summary.keys);
  print_json_buckets(console, "values", summary.values);
  for (const Large& large : summary.largest()) {
    print_json(console, {{"of", "largest"},
                         {"key", as_hex ? Json{{"hex", hex(large.key)}} : json_of_bytes(large.key)},
                         {"value_size", large.size},
                         {"atoms", large.atoms}});
  }
}

}  // namespace

Outcome top(Console& console, const TopOptions& options) {
  Summary summary(options.largest);
  const Outcome outcome = each_entry(console, find_cache(options.cache, kind_named(options.kind)),
                                     "reading", [&](const Entry& entry) {
                                       summary.add(entry);
                                       return true;
                                     });
  if (console.json()) {
    print_as_json(console, summary, options.hex);
    return outcome;
  }
  console.out() << grouped(summary.entries) << (summary.entries == 1 ? " entry, " : " entries, ")
                << size_text(summary.keys.bytes) << " of keys, " << size_text(summary.values.bytes)
                << " of values\n";
  if (summary.entries != 0) {
    console.out() << '\n';
    print(console, "KEY SIZE", summary.keys);
    print(console, "VALUE SIZE", summary.values);
    print(console, summary.largest(), options.hex);
  }
  return outcome;
}

}  // namespace quorvane::tool
