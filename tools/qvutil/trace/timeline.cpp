#include "qvutil/trace/timeline.h"

#include <algorithm>
#include <string>
#include <tuple>

namespace quorvane::tool {
namespace {

constexpr std::size_t kMostProcessNames = 10'000;  // of processes
constexpr std::size_t kMostArgumentBytes = 200;    // of a span
constexpr int kDeepest = 8;

// Drops the spans that lie within too many others. A span that ends in the microsecond in which
// the next one begins doesn't contain it.
void set_depths(Lane& lane) {
  std::sort(lane.spans.begin(), lane.spans.end(), [](const Span& a, const Span& b) {
    return std::tuple(a.start, -a.duration) < std::tuple(b.start, -b.duration);
  });
  std::vector<std::int64_t> ends;  // of the spans around
  for (Span& span : lane.spans) {
    while (!ends.empty() && ends.back() <= span.start) {
      ends.pop_back();
    }
    span.depth = static_cast<int>(ends.size());
    ends.push_back(span.start + span.duration);
    lane.depth = std::max(lane.depth, std::min(span.depth + 1, kDeepest));
  }
  std::erase_if(lane.spans, [](const Span& span) { return span.depth >= kDeepest; });
}

std::int64_t total(const Lane& lane) {
  std::int64_t sum = 0;
  for (const Span& span : lane.spans) {
    sum += span.depth == 0 ? span.duration : 0;
  }
  return sum;
}

void keep_busiest(std::vector<Lane>& lanes, std::size_t most) {
  if (lanes.size() > most) {
    std::stable_sort(lanes.begin(), lanes.end(),
                     [](const Lane& a, const Lane& b) { return total(a) > total(b); });
    lanes.resize(most);
  }
}

// Processes in the order in which they began, and their threads likewise.
void sort_by_start(std::vector<Lane>& lanes) {
  std::map<std::int64_t, std::int64_t> starts;  // of processes
  for (const Lane& lane : lanes) {
    const auto [it, is_new] = starts.emplace(lane.pid, lane.spans.front().start);
    it->second = std::min(it->second, lane.spans.front().start);
  }
  std::sort(lanes.begin(), lanes.end(), [&](const Lane& a, const Lane& b) {
    return std::tuple(starts[a.pid], a.pid, a.spans.front().start, a.tid) <
           std::tuple(starts[b.pid], b.pid, b.spans.front().start, b.tid);
  });
}

std::vector<std::string> names_by_time(const std::vector<Lane>& lanes) {
  std::map<std::string, std::int64_t> totals;
  for (const Lane& lane : lanes) {
    for (const Span& span : lane.spans) {
      totals[span.name] += span.duration;
    }
  }
  std::vector<std::string> names;
  names.reserve(totals.size());
  for (const auto& [name, time] : totals) {
    names.push_back(name);
  }
  std::stable_sort(names.begin(), names.end(), [&](const std::string& a, const std::string& b) {
    return totals[a] > totals[b];
  });
  return names;
}

}  // namespace

void Timeline::add(const TraceEvent& event) {
  if (event.names_process && process_names_.size() < kMostProcessNames) {
    process_names_[event.pid] = event.name;
  }
  if (!event.is_span) {
    return;
  }
  const std::int64_t end = event.start + event.duration;
  start_ = spans_ == 0 ? event.start : std::min(start_, event.start);
  end_ = std::max(end_, end);
  ++spans_;
  const auto is_longer = [](const Kept& a, const Kept& b) {
    return a.first.duration > b.first.duration;
  };
  if (kept_.size() == most_spans_) {
    if (kept_.front().first.duration >= event.duration) {
      return;
    }
    std::pop_heap(kept_.begin(), kept_.end(), is_longer);
    kept_.pop_back();
  }
  kept_.push_back({{event.start, event.duration, event.name,
                    event.arguments.size() <= kMostArgumentBytes ? event.arguments : "", 0},
                   {event.pid, event.tid}});
  std::push_heap(kept_.begin(), kept_.end(), is_longer);
}

Picture Timeline::picture() const {
  std::map<LaneId, Lane> by_id;
  for (const auto& [span, id] : kept_) {
    Lane& lane = by_id[id];
    std::tie(lane.pid, lane.tid) = id;
    const auto name = process_names_.find(lane.pid);
    lane.process = name == process_names_.end() ? "process" : name->second;
    lane.spans.push_back(span);
  }
  Picture picture{start_, end_, {}, {}, spans_};
  for (auto& [id, lane] : by_id) {
    set_depths(lane);
    picture.lanes.push_back(std::move(lane));
  }
  keep_busiest(picture.lanes, most_lanes_);
  sort_by_start(picture.lanes);
  picture.names = names_by_time(picture.lanes);
  for (const Lane& lane : picture.lanes) {
    picture.spans_left_out -= lane.spans.size();
  }
  return picture;
}

}  // namespace quorvane::tool
