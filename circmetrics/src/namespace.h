// What has a name: metrics and the namespaces around them.
#ifndef CIRCMETRICS_SRC_NAMESPACE_H_
#define CIRCMETRICS_SRC_NAMESPACE_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "metric.h"

namespace circmetrics {

// Every name in it stands for one namespace or one metric, for ever. Not
// thread-safe: the registration lock is held around every call.
class Namespace {
 public:
  // Null when the name stands for a metric.
  Namespace* find_or_make_namespace(const char* name);

  // Null when the name stands for something else or there is no such type.
  Metric* find_or_make_metric(const char* name, int type);

  // What lies in it, in the order of a report. A namespace begins with its name and no
  // metric, and ends with neither. Good for ever, without the lock too.
  struct Step {
    const std::string* name;
    const Metric* metric;
  };
  std::vector<Step> steps() const;

 private:
  struct Entry {  // one of the two
    std::unique_ptr<Namespace> inner;
    std::unique_ptr<Metric> metric;
  };

  using Entries = std::map<std::string, Entry>;

  Entries entries_;
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_NAMESPACE_H_
