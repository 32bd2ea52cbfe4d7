#include "qvutil/report/interrupted.h"

#include <poll.h>

namespace quorvane::tool {
namespace {

volatile std::sig_atomic_t g_is_set = 0;

void set(int) { g_is_set = 1; }

}  // namespace

Interrupted::Interrupted() {
  g_is_set = 0;
  struct sigaction action {};
  action.sa_handler = set;
  sigaction(SIGINT, &action, &int_);
  sigaction(SIGTERM, &action, &term_);
}

Interrupted::~Interrupted() {
  sigaction(SIGINT, &int_, nullptr);
  sigaction(SIGTERM, &term_, nullptr);
}

bool Interrupted::is_set() { return g_is_set != 0; }

void Interrupted::pause(int milliseconds) { poll(nullptr, 0, milliseconds); }

}  // namespace quorvane::tool
