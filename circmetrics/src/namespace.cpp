#include "namespace.h"

#include "circmetrics.h"
#include "counter.h"
#include "gauge.h"
#include "histogram.h"
#include "json_writer.h"

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
  Entry& made = entries_[name];
  made.inner = std::make_unique<Namespace>();
  return made.inner.get();
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

void Namespace::write(JsonWriter& json) const {
  json.begin_object();
  for (const auto& [name, entry] : entries_) {
    json.key(name);
    if (entry.inner != nullptr) {
      entry.inner->write(json);
    } else {
      entry.metric->write(json);
    }
  }
  json.end_object();
}

}  // namespace circmetrics
