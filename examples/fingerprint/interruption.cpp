#include "fingerprint/interruption.h"

#include <csignal>
#include <initializer_list>

namespace fingerprint {
namespace {

volatile std::sig_atomic_t g_signal = 0;

void remember(int signal) { g_signal = signal; }

}  // namespace

void catch_interruptions() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    if (action.sa_handler == SIG_IGN) {
      continue;
    }
    action = {};
    action.sa_handler = remember;
    action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    sigaction(signal, &action, nullptr);
  }
}

int interruption() { return g_signal; }

}  // namespace fingerprint
