// When a call must have ended.
#ifndef QUORVANE_REMOTE_SRC_DEADLINE_H_
#define QUORVANE_REMOTE_SRC_DEADLINE_H_

#include <algorithm>
#include <chrono>

namespace quorvane {
namespace remote {

// A point in time on the monotonic clock.
class Deadline {
 public:
  explicit Deadline(std::chrono::milliseconds from_now)
      : end_(std::chrono::steady_clock::now() + from_now) {}

  // The earlier of this one and one that long from now.
  Deadline at_most(std::chrono::milliseconds from_now) const {
    Deadline other(from_now);
    other.end_ = std::min(other.end_, end_);
    return other;
  }

  // What is left, for poll(2): rounded up; 0 when the point has passed.
  int milliseconds_left() const {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end_ - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
  }

  bool has_passed() const { return std::chrono::steady_clock::now() >= end_; }

 private:
  std::chrono::steady_clock::time_point end_;
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_DEADLINE_H_
