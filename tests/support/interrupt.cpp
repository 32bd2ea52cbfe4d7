#include "support/interrupt.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

namespace test {
namespace {

bool has_pending_signal(pid_t tid) {
  std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("SigPnd:", 0) == 0) {
      return line.find_first_not_of("0", line.find('0')) != std::string::npos;
    }
  }
  return false;
}

}  // namespace

void let_signals_interrupt() {
  struct sigaction action {};
  action.sa_handler = [](int) {};  // without SA_RESTART
  sigaction(SIGUSR1, &action, nullptr);
}

void interrupt(pid_t tid) {
  syscall(SYS_tgkill, getpid(), tid, SIGUSR1);
  while (has_pending_signal(tid)) {
    std::this_thread::yield();
  }
}

}  // namespace test
