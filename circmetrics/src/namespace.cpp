#include "namespace.h"

#include "inherited.h"

namespace circmetrics {

// Creates the namespace or metric before its entry: when memory runs out, neither exists.
Namespace* Namespace::find_or_make_namespace(const char* name) {
  const auto found = entries_.find(name);
  if (found != entries_.end() && found->second.inner != nullptr) {
    return found->second.inner.get();
  }
  auto made = std::make_unique<Namespace>();
  auto& inner = entries_[name].inner;
  inner = std::move(made);
  return inner.get();
}

Metric* Namespace::find_or_make_metric(const char* name, int type) {
  const auto found = entries_.find(name);
  if (found != entries_.end() && found->second.metric != nullptr) {
    Metric* metric = found->second.metric.get();
    return metric->type() == type ? metric : nullptr;
  }
  auto made = is_own(name) ? nullptr : make_metric(type);
  if (made == nullptr) {
    return nullptr;
  }
  auto& metric = entries_[name].metric;
  metric = std::move(made);
  metric->list();
  Inherited::begin_first();
  return metric.get();
}

bool Namespace::is_own(std::string_view name) const {
  return is_root_ && (name == kProcess || name == kInherited);
}

std::size_t Namespace::slashes_behind(const std::string& name) const {
  std::size_t slashes = 0;
  if (is_own(name) || entries_.at(name).metric != nullptr) {
    for (std::string key = name; entries_.count(key) != 0; key += '/') {
      ++slashes;
    }
  }
  return slashes;
}

// Not recursive: namespaces may be nested deeper than a thread's stack allows.
std::vector<Namespace::Step> Namespace::steps() const {
  struct Level {
    const Namespace* space;
    Entries::const_iterator next;
  };
  std::vector<Step> steps;
  std::vector<Level> open{{this, entries_.begin()}};
  while (!open.empty()) {
    Level& level = open.back();
    if (level.next == level.space->entries_.end()) {
      steps.push_back({nullptr, 0, nullptr});
      open.pop_back();
      continue;
    }
    const auto& [name, entry] = *level.next++;
    if (entry.metric != nullptr) {
      steps.push_back({&name, 0, entry.metric.get()});
    }
    if (entry.inner != nullptr) {
      steps.push_back({&name, level.space->slashes_behind(name), nullptr});
      open.push_back({entry.inner.get(), entry.inner->entries_.begin()});
    }
  }
  return steps;
}

}  // namespace circmetrics
