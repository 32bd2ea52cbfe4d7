// A namespace of the recorder: metrics and namespaces by name.
#ifndef CIRCMETRICS_SRC_NAMESPACE_H_
#define CIRCMETRICS_SRC_NAMESPACE_H_

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "metric.h"

namespace circmetrics {

// Each name denotes at most one namespace and one metric, for ever. It may denote both: the
// module "a" may have a metric "b" while another module has the path "a/b". Not
// thread-safe: callers hold the registration lock.
class Namespace {
 public:
  // The root has names of its own: no metric can have one, and a namespace that has one is
  // reported as if it were behind a metric.
  static constexpr const char* kProcess = "@process";
  static constexpr const char* kInherited = "@inherited";

  explicit Namespace(bool is_root = false) : is_root_(is_root) {}

  Namespace* find_or_make_namespace(const char* name);

  // Null when a metric of another type has the name, for one of the root's own names, and for
  // an unknown type.
  Metric* find_or_make_metric(const char* name, int type);

  // The contents in the order of a report. A namespace begins with a step that has its
  // name and no metric, and ends with a step that has neither. `slashes` is how many to
  // append to the name to make it unique. The steps stay valid until the process ends, even
  // without the lock.
  struct Step {
    const std::string* name;
    std::size_t slashes;
    const Metric* metric;
  };
  std::vector<Step> steps() const;

 private:
  struct Entry {  // has at least one of the two
    std::unique_ptr<Namespace> inner;
    std::unique_ptr<Metric> metric;
  };

  using Entries = std::map<std::string, Entry>;

  bool is_own(std::string_view name) const;
  std::size_t slashes_behind(const std::string& name) const;

  const bool is_root_;
  Entries entries_;
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_NAMESPACE_H_
