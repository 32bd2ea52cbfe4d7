// Defers the cancellation of a thread.
#ifndef QUORVANE_SRC_UNCANCELLABLE_H_
#define QUORVANE_SRC_UNCANCELLABLE_H_

#include <pthread.h>

namespace quorvane {

// While one exists, this thread can't be cancelled in the middle of a change, such as
// taking a lock or linking a list, which would stay half done.
class Uncancellable {
 public:
  Uncancellable() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~Uncancellable() { pthread_setcancelstate(before_, nullptr); }
  Uncancellable(const Uncancellable&) = delete;
  Uncancellable& operator=(const Uncancellable&) = delete;

 private:
  int before_ = 0;
};

}  // namespace quorvane

#endif  // QUORVANE_SRC_UNCANCELLABLE_H_
