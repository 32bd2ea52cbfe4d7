// Part of the library in coverage builds only. Saves the counters of a process that aborts
// or calls _exit, which would otherwise lose them.
#include <signal.h>

extern "C" void __gcov_dump();

namespace {

void save(int signal_number) {
  __gcov_dump();
  if (signal_number == SIGABRT) {
    signal(SIGABRT, SIG_DFL);
    raise(SIGABRT);
  }
}

[[maybe_unused]] const auto g_aborts = signal(SIGABRT, &save);
// coverage_exit.cpp raises this.
[[maybe_unused]] const auto g_leaves = signal(SIGRTMAX, &save);

}  // namespace
