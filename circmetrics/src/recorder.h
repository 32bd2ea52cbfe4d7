// The root of the namespaces, and the lock around them.
#ifndef CIRCMETRICS_SRC_RECORDER_H_
#define CIRCMETRICS_SRC_RECORDER_H_

#include <mutex>
#include <string>
#include <vector>

#include "namespace.h"

namespace circmetrics {

// Guards every namespace of every recorder; updates of metrics don't take it. A
// fork waits until it is free, so a child never finds it taken. It is never
// destroyed: a last report is written after the static destructors.
std::mutex& registration_mutex();

// Lives until the process ends: no function gives one back.
class Recorder {
 public:
  // Null when there is no memory.
  static Recorder* make();

  Namespace& root() { return root_; }

  // The present state. Takes the lock, for the names.
  std::string to_json() const;

 private:
  Recorder() = default;

  std::vector<Namespace::Step> steps() const;

  Namespace root_;
  Recorder* previous_ = nullptr;  // keeps every recorder known to a leak checker
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_RECORDER_H_
