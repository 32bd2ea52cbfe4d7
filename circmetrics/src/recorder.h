// The root of the namespaces, and the lock around them.
#ifndef CIRCMETRICS_SRC_RECORDER_H_
#define CIRCMETRICS_SRC_RECORDER_H_

#include <atomic>
#include <string>
#include <vector>

#include "namespace.h"

namespace circmetrics {

// Guards every namespace of every recorder; updates of metrics don't take it. A fork holds
// it, and the forking thread bypasses it meanwhile, so that fork handlers registered before
// this library was loaded may use the recorder.
//
// A child that ran no fork handlers (of a raw clone, or of a fork that had begun before
// this library was loaded) may find the lock held by a thread that doesn't exist in the
// child, and the namespaces half changed. All namespaces then become empty; metrics that
// were registered can still be updated.
class RegistrationLock {
 public:
  RegistrationLock();
  ~RegistrationLock();
  RegistrationLock(const RegistrationLock&) = delete;
  RegistrationLock& operator=(const RegistrationLock&) = delete;

 private:
  const bool is_forking_;
};

// Lives until the process ends: no function frees one.
class Recorder {
 public:
  // Null when out of memory.
  static Recorder* make();

  Namespace& root() { return root_; }

  // Gives every recorder a new empty root and leaks the old one, which may be half changed.
  static void abandon_all();

  // The current state. Takes the lock to collect the names.
  std::string to_json() const;

 private:
  Recorder() = default;

  std::vector<Namespace::Step> steps() const;

  static constexpr bool kIsRoot = true;

  Namespace root_{kIsRoot};
  Recorder* previous_ = nullptr;

  static std::atomic<Recorder*> newest_;
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_RECORDER_H_
