#include "namespace.h"

#include "circmetrics.h"
#include "counter.h"
#include "gauge.h"
#include "histogram.h"

namespace circmetrics {
namespace {

std::unique_ptr<Metric> make_metric(int type) {
  switch (type) {
    case CIRCMETRICS_GAUGE_INT64:
    case CIRCMETRICS_GAUGE_DOUBLE:
      return std::make_unique<Gauge>(type);
    case CIRCMETRICS_COUNTER:
      return std::make_unique<Counter>();
    case CIRCMETRICS_HISTOGRAM:
      return std::make_unique<Histogram>();
    default:
      return nullptr;
  }
}

}  // namespace

Namespace* Namespace::find_or_make_namespace(const char* name) {
  const auto found = entries_.find(name);
  if (found != entries_.end()) {
    return found->second.inner.get();
  }
  auto inner = std::make_unique<Namespace>();
  return entries_.emplace(name, Entry{std::move(inner), nullptr}).first->second.inner.get();
}

Metric* Namespace::find_or_make_metric(const char* name, int type) {
  const auto found = entries_.find(name);
  if (found != entries_.end()) {
    Metric* metric = found->second.metric.get();
    return metric != nullptr && metric->type() == type ? metric : nullptr;
  }
  Entry entry{nullptr, make_metric(type)};
  if (entry.metric == nullptr) {
    return nullptr;
  }
  return entries_.emplace(name, std::move(entry)).first->second.metric.get();
}

// Not recursive: namespaces may lie deeper in each other than a thread has stack for.
std::vector<Namespace::Step> Namespace::steps() const {
  struct Level {
    Entries::const_iterator next;
    Entries::const_iterator end;
  };
  std::vector<Step> steps;
  std::vector<Level> open{{entries_.begin(), entries_.end()}};
  while (!open.empty()) {
    Level& level = open.back();
    if (level.next == level.end) {
      steps.push_back({nullptr, nullptr});
      open.pop_back();
      continue;
    }
    const auto& [name, entry] = *level.next++;
    steps.push_back({&name, entry.metric.get()});
    if (entry.inner != nullptr) {
      open.push_back({entry.inner->entries_.begin(), entry.inner->entries_.end()});
    }
  }
  return steps;
}

}  // namespace circmetrics
