// Stops asking a server that doesn't answer.
#ifndef QUORVANE_REMOTE_SRC_BREAKER_H_
#define QUORVANE_REMOTE_SRC_BREAKER_H_

#include <chrono>
#include <cstdint>

namespace quorvane {
namespace remote {

// Three failures in a row open it for 1 s; then one caller tries while others skip. Each failed
// try doubles the time, up to 60 s. A success closes it. Every time is shortened by a random part
// of up to a quarter: ten thousand processes must not come back at one instant. Not thread-safe:
// the owner's mutex guards it.
class Breaker {
 public:
  using Clock = std::chrono::steady_clock;
  using Random = double (*)();  // 0 to 1

  enum class Change { none, opened, closed };

  explicit Breaker(Random random = &random_part) : random_(random) {}

  // Whether the caller may ask the server. When the time is up, true for one caller, who then
  // reports the result, or calls forget_try() if it asked nothing. If it never does
  // (it was another thread of the process that forked this one), another one may try
  // after 60 s.
  bool may_try(Clock::time_point now);
  void forget_try();

  Change succeeded();                    // `closed` when it was open
  Change failed(Clock::time_point now);  // `opened` when it opens; a failed try: none
  // Refused credentials: opens at once, for 60 s.
  Change refused(Clock::time_point now);

 private:
  using Duration = Clock::duration;

  static double random_part();
  bool is_open() const { return wait_ != Duration::zero(); }
  Change open(Clock::time_point now, Duration wait);

  Random random_;
  int failures_ = 0;              // in a row, while it is closed
  Duration wait_{};               // before the next try; 0: closed
  Clock::time_point next_try_{};  // while it is open
  bool is_trying_ = false;        // a caller may ask and hasn't reported
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_BREAKER_H_
