#include "qvutil/trace/summary.h"

#include <algorithm>
#include <bit>
#include <string>

namespace quorvane::tool {
namespace {

// Libraries have a dozen names; a hostile file may have any number.
constexpr std::size_t kMostNames = 1000;

// The greatest duration that counts as this one: 128 steps for each doubling.
std::int64_t rounded_up(std::int64_t duration) {
  const auto bits = static_cast<int>(std::bit_width(static_cast<std::uint64_t>(duration)));
  const int dropped = std::max(0, bits - 8);
  return duration | ((std::int64_t{1} << dropped) - 1);
}

}  // namespace

void Durations::add(std::int64_t duration) {
  ++count_;
  total_ += static_cast<double>(duration);
  max_ = std::max(max_, duration);
  ++counts_[rounded_up(duration)];
}

std::int64_t Durations::p99() const {
  const std::uint64_t wanted = count_ - count_ / 100;
  std::uint64_t seen = 0;
  for (const auto& [duration, count] : counts_) {
    seen += count;
    if (seen >= wanted) {
      return std::min(duration, max_);
    }
  }
  return max_;
}

void TraceSummary::add(const TraceEvent& event) {
  if (!event.is_span) {
    return;
  }
  const bool has_room = by_name_.size() < kMostNames || by_name_.count(event.name) != 0;
  by_name_[has_room ? event.name : "(others)"].add(event.duration);
}

std::vector<std::pair<std::string, const Durations*>> TraceSummary::rows() const {
  std::vector<std::pair<std::string, const Durations*>> rows;
  for (const auto& [name, durations] : by_name_) {
    rows.emplace_back(name, &durations);
  }
  std::stable_sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) {
    return a.second->total() > b.second->total();
  });
  return rows;
}

}  // namespace quorvane::tool
