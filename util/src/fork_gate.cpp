#include "src/fork_gate.h"

#include <atomic>
#include <ctime>

namespace quorvane {
namespace fork_gate {
namespace {

// Together about a second, since the kernel makes each of them 50 us longer. Counted, not timed:
// while the process is stopped, or short of processor time, the thread that it waits for makes no
// progress either.
constexpr timespec kPause{0, 50'000};
constexpr int kMostPauses = 10'000;

std::atomic<int> g_closed{0};

// The unfinished forks that began before wait_for_earlier_forks, which ends the counting.
std::atomic<int> g_earlier_forks{0};
std::atomic<bool> g_is_over{false};

// This thread's share of the counts above. Initial-exec, so that a thread's first use
// doesn't allocate.
#define QV_OF_THREAD __attribute__((tls_model("initial-exec"))) thread_local
QV_OF_THREAD int t_closed = 0;
QV_OF_THREAD int t_forks = 0;  // a count, since a fork handler may fork itself
QV_OF_THREAD int t_earlier_forks = 0;
#undef QV_OF_THREAD

// Polls: a futex in the memory that a child inherits would need care of its own.
void wait_until_equal(const std::atomic<int>& all, int own) {
  for (int pauses = 0; all != own && pauses < kMostPauses; ++pauses) {
    nanosleep(&kPause, nullptr);
  }
}

// Among nested forks, the outer ones are the earlier ones.
void end_fork() {
  if (t_forks-- == t_earlier_forks) {
    --t_earlier_forks;
    --g_earlier_forks;
  }
}

}  // namespace

Closed::Closed() {
  ++t_closed;
  ++g_closed;
}

Closed::~Closed() {
  --g_closed;
  --t_closed;
}

void wait_for_earlier_forks() {
  g_is_over = true;
  wait_until_equal(g_earlier_forks, t_earlier_forks);
}

void before_fork() {
  ++t_forks;
  ++g_earlier_forks;
  if (g_is_over) {
    --g_earlier_forks;
  } else {
    ++t_earlier_forks;
  }
  wait_until_equal(g_closed, t_closed);
}

void after_fork_in_parent() { end_fork(); }

void after_fork_in_child() {
  end_fork();
  g_earlier_forks = t_earlier_forks;
  g_closed = t_closed;
}

}  // namespace fork_gate
}  // namespace quorvane
