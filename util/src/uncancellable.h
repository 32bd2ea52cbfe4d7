// Puts the cancellation of a thread off.
#ifndef QUORVANE_SRC_UNCANCELLABLE_H_
#define QUORVANE_SRC_UNCANCELLABLE_H_

#include <pthread.h>

namespace quorvane {

// While one exists, this thread can't be cancelled: what is half done here (a lock that is
// taken, a list that is linked) would stay so.
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
