// Registers fork handlers and then loads the library. The child handler therefore reports
// before the library's own handler runs. A thread of the parent is in the middle of a
// report at that time.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "support/processes.h"

namespace {

void* (*g_get_module)() = nullptr;
void (*g_report_now)(void* module) = nullptr;

void report() { g_report_now(g_get_module()); }

bool is_waiting_for_a_file_lock(pid_t tid) {
  std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/syscall");
  long call = -1;
  return (file >> call) && call == SYS_flock;
}

int fork_while_reporting(const char* path) {
  const int other = open(path, O_RDONLY | O_CLOEXEC);
  flock(other, LOCK_EX);
  std::atomic<pid_t> tid{0};
  std::thread reporter([&] {
    tid = gettid();
    report();
  });
  while (tid == 0 || !is_waiting_for_a_file_lock(tid)) {
    std::this_thread::yield();
  }
  const pid_t child = test::in_child([] { return 0; });
  flock(other, LOCK_UN);
  close(other);
  const int status = test::wait_for(child);
  reporter.join();
  return status;
}

}  // namespace

int main(int, char** argv) {
  alarm(60);
  pthread_atfork(nullptr, nullptr, [] {
    alarm(60);
    report();
  });
  void* library = dlopen(argv[1], RTLD_NOW);
  g_get_module =
      reinterpret_cast<void* (*)()>(dlsym(library, "_ZN8quorvane5stats20get_singleton_moduleEv"));
  g_report_now = reinterpret_cast<void (*)(void*)>(
      dlsym(library, "_ZN8quorvane5stats17CircMetricsModule10report_nowEv"));
  g_get_module();
  const char* const path = std::getenv("QV_STATS_REPORT_FILE");
  return path == nullptr ? 1 : fork_while_reporting(path);
}
