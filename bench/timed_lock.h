// A store lock that measures how long it is held.
#ifndef BENCH_TIMED_LOCK_H_
#define BENCH_TIMED_LOCK_H_

#include <quorvane/file_store.h>

#include <string>
#include <utility>

#include "now.h"

namespace bench {

class TimedLock : public quorvane::cache::Store::Lock {
 public:
  explicit TimedLock(const std::string& name) : lock_(name) {}
  bool is_valid() const override { return lock_.is_valid(); }
  void lock() override {
    lock_.lock();
    locked_at_ = now();
  }
  void unlock() override {
    held_ += now() - locked_at_;
    lock_.unlock();
  }

  // In us, since the last call.
  double take_held() { return std::exchange(held_, 0); }

 private:
  quorvane::cache::StoreFLock lock_;
  double locked_at_ = 0;
  double held_ = 0;
};

}  // namespace bench

#endif  // BENCH_TIMED_LOCK_H_
