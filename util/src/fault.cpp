#include <quorvane/fault.h>

#include <execinfo.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "src/fork_guard.h"

namespace {

constexpr int kMaxFrames = 64;

// stdio isn't safe in a signal handler, but the process is lost in any case.
// Kept: docs/compatibility.md
void print_stack_and_abort(int signal_number) {
  void* frames[kMaxFrames];
  const int count = backtrace(frames, kMaxFrames);
  std::fprintf(stderr, "Error: signal %d:\n", signal_number);
  backtrace_symbols_fd(frames, count, STDERR_FILENO);
  std::abort();
}

// The caller of a failed check may hold locks that a fork would wait for.
[[noreturn]] void abort_for_good() {
  quorvane::fork_guard::give_up();
  std::abort();
}

}  // namespace

bool qv_fault_expect(void* module, unsigned severity, bool condition, const char* format, ...) {
  if (condition) {
    return true;
  }
  const auto* record = static_cast<const quorvane::module::Module*>(module);
  // Unsigned: a negative threshold is above every usual severity.
  // Kept: docs/compatibility.md
  if (severity <= static_cast<unsigned>(record->fault_log_level) &&
      record->level != QV_LOG_LEVEL_OFF) {
    va_list args;
    va_start(args, format);
    qv_logv_do(module, QV_LOG_LEVEL_ERROR, 0, format, args);
    va_end(args);
  }
  if (severity <= static_cast<unsigned>(record->fault_abort_level)) {
    abort_for_good();
  }
  return false;
}

void qv_enable_stack_print_on_segfault() {
  // The first backtrace loads a library, which a signal handler must not do.
  void* frame = nullptr;
  backtrace(&frame, 1);
  signal(SIGSEGV, &print_stack_and_abort);
}

namespace quorvane {
namespace fault {

bool expectation_failed(void* module, int severity, const char* condition, const char* source,
                        int line) {
  const auto* record = static_cast<const module::Module*>(module);
  // Signed, unlike in qv_fault_expect; no record at a negative level either.
  // Kept: docs/compatibility.md
  if (record->fault_log_level >= severity && record->level > QV_LOG_LEVEL_OFF) {
    qv_log_do(module, QV_LOG_LEVEL_ERROR, 0, "QV_FAULT_EXPECT: expectation (%s) failed (%s:%d)",
              condition, source, line);
  }
  if (record->fault_abort_level >= severity) {
    abort_for_good();
  }
  return false;
}

// The condition is an argument and not part of the format: a "%" in it, as in
// "size % step", would read arguments that don't exist.
void assertion_failed(void* module, const char* condition, const char* source, int line) {
  // At any level of the module, even at OFF.
  // Kept: docs/compatibility.md
  qv_log_do(module, QV_LOG_LEVEL_ERROR, 0, "QV_FAULT_ASSERT: assertion (%s) failed (%s:%d)",
            condition, source, line);
  abort_for_good();
}

}  // namespace fault
}  // namespace quorvane
