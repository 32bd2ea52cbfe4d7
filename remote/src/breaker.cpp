#include "src/breaker.h"

#include <unistd.h>

#include <algorithm>

namespace quorvane {
namespace remote {
namespace {

constexpr int kFailures = 3;
constexpr std::chrono::seconds kShortest{1};
constexpr std::chrono::seconds kLongest{60};
constexpr double kRandomPart = 0.25;

}  // namespace

bool Breaker::may_try(Clock::time_point now) {
  if (!is_open()) {
    return true;
  }
  if (now < next_try_) {
    return false;
  }
  is_trying_ = true;
  next_try_ = now + kLongest;
  return true;
}

void Breaker::forget_try() {
  if (is_trying_) {
    is_trying_ = false;
    next_try_ = Clock::time_point::min();
  }
}

Breaker::Change Breaker::succeeded() {
  const bool was_open = is_open();
  failures_ = 0;
  wait_ = Duration::zero();
  is_trying_ = false;
  return was_open ? Change::closed : Change::none;
}

Breaker::Change Breaker::failed(Clock::time_point now) {
  if (!is_open()) {
    return ++failures_ < kFailures ? Change::none : open(now, kShortest);
  }
  // Without a try, it is a failure of a caller that asked before the breaker opened.
  return is_trying_ ? open(now, std::min<Duration>(2 * wait_, kLongest)) : Change::none;
}

Breaker::Change Breaker::refused(Clock::time_point now) { return open(now, kLongest); }

Breaker::Change Breaker::open(Clock::time_point now, Duration wait) {
  const bool was_open = is_open();
  const auto less = std::chrono::duration<double>(wait) * (kRandomPart * random_());
  wait_ = wait;
  next_try_ = now + wait - std::chrono::duration_cast<Duration>(less);
  is_trying_ = false;
  failures_ = 0;
  return was_open ? Change::none : Change::opened;
}

// The clock and the process id, mixed (splitmix64). No state: a child would inherit it, and wait
// just as long as its parent.
double Breaker::random_part() {
  auto bits = static_cast<std::uint64_t>(Clock::now().time_since_epoch().count()) +
              static_cast<std::uint64_t>(getpid()) * 0x9e3779b97f4a7c15U;
  bits = (bits ^ (bits >> 30)) * 0xbf58476d1ce4e5b9U;
  bits = (bits ^ (bits >> 27)) * 0x94d049bb133111ebU;
  bits ^= bits >> 31;
  return static_cast<double>(bits >> 11) / static_cast<double>(std::uint64_t{1} << 53);
}

}  // namespace remote
}  // namespace quorvane
