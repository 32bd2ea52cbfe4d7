// The root of the namespaces, and the lock around them.
#ifndef CIRCMETRICS_SRC_RECORDER_H_
#define CIRCMETRICS_SRC_RECORDER_H_

#include <atomic>
#include <string>
#include <vector>

#include "namespace.h"

namespace circmetrics {

// Guards every namespace of every recorder; updates of metrics don't take it. A fork
// waits until it is free, and the forking thread bypasses it: fork handlers that a
// program registered before it loaded this library may use it.
//
// A child created without running the fork handlers (by a raw clone, or by a fork that
// had begun when this library was loaded) may find it held by a thread that doesn't exist
// in the child, and the namespaces half changed. They all become empty then; what
// was registered can still be updated.
class RegistrationLock {
 public:
  RegistrationLock();
  ~RegistrationLock();
  RegistrationLock(const RegistrationLock&) = delete;
  RegistrationLock& operator=(const RegistrationLock&) = delete;

 private:
  const bool is_forking_;
};

// Lives until the process ends: no function gives one back.
class Recorder {
 public:
  // Null when there is no memory.
  static Recorder* make();

  Namespace& root() { return root_; }

  // Leaves every namespace of every recorder behind as it is, and begins with none.
  static void abandon_all();

  // The present state. Takes the lock, for the names.
  std::string to_json() const;

 private:
  Recorder() = default;

  std::vector<Namespace::Step> steps() const;

  Namespace root_;
  Recorder* previous_ = nullptr;

  static std::atomic<Recorder*> newest_;
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_RECORDER_H_
