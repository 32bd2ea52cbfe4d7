// What has a name: metrics and the namespaces around them.
#ifndef CIRCMETRICS_SRC_NAMESPACE_H_
#define CIRCMETRICS_SRC_NAMESPACE_H_

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "metric.h"

namespace circmetrics {

// Every name in it stands for at most one namespace and one metric, for ever: the path
// of a module may go on where the name of another module's metric ends. Not
// thread-safe: the registration lock is held around every call.
class Namespace {
 public:
  Namespace* find_or_make_namespace(const char* name);

  // Null when the name stands for a metric of another type or there is no such type.
  Metric* find_or_make_metric(const char* name, int type);

  // What lies in it, in the order of a report. A namespace begins with its name and no
  // metric, and ends with neither. `slashes` is how many to append to the name to make
  // it unique. Valid until the process ends, also without the lock.
  struct Step {
    const std::string* name;
    std::size_t slashes;
    const Metric* metric;
  };
  std::vector<Step> steps() const;

 private:
  struct Entry {  // at least one of the two
    std::unique_ptr<Namespace> inner;
    std::unique_ptr<Metric> metric;
  };

  using Entries = std::map<std::string, Entry>;

  std::size_t slashes_behind(const std::string& name) const;

  Entries entries_;
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_NAMESPACE_H_
