/// \file
/// Fault checks, and a stack trace when the process takes a segmentation fault.
///
/// A check has a severity; lower is more serious. A failed expectation is logged
/// at ERROR when its severity is at most the module's fault_log_level (2 unless
/// changed) and aborts when it is at most the module's fault_abort_level (0). A
/// failed assertion is always logged and always aborts.
///
/// Thread-safety: checks keep no state. Fork-safety: safe in a child.
#ifndef QUORVANE_FAULT_H_
#define QUORVANE_FAULT_H_

#include <quorvane/export.h>
#include <quorvane/log.h>

#ifdef __cplusplus
extern "C" {
#else
#include <stdbool.h>
#endif

/** Returns `condition`. When it is false, logs the printf-style message through
 * `module` and aborts as the module's thresholds say; a module at OFF logs
 * nothing but aborts all the same. */
QV_EXPORT bool qv_fault_expect(void* module, unsigned severity, bool condition, const char* format,
                               ...) __attribute__((format(printf, 4, 5)));

/** Makes SIGSEGV print "Error: signal 11:" and up to 64 stack frames on standard
 * error and abort. Call it once, from any thread. */
QV_EXPORT void qv_enable_stack_print_on_segfault(void);

#ifdef __cplusplus
}  // extern "C"

#include <cstdlib>

#include <quorvane/module.h>

/// QV_FAULT_EXPECT_AS(module, severity, condition, text, source, line): true when the
/// condition holds; otherwise reports it as a failed expectation and is false.
/// The record quotes `text`, `source` and `line`. `module` is a
/// quorvane::module::Module* or a quorvane::Module.
#define QV_FAULT_EXPECT_AS(module, severity, condition, text, source, line)                      \
  (static_cast<bool>(condition) ||                                                               \
   (::quorvane::fault::expectation_failed(qv_log_module_pointer(module), severity, text, source, \
                                          line),                                                 \
    false))

/// The same for a record that quotes the condition as it is written.
#define QV_FAULT_EXPECT_AT(module, severity, condition, source, line) \
  QV_FAULT_EXPECT_AS(module, severity, condition, #condition, source, line)

/// The same at the line of the check itself.
#define QV_FAULT_EXPECT(module, severity, condition, source) \
  QV_FAULT_EXPECT_AS(module, severity, condition, #condition, source, __LINE__)

/// QV_FAULT_ASSERT_AS(module, condition, text, source, line): logs and aborts unless
/// the condition holds.
#define QV_FAULT_ASSERT_AS(module, condition, text, source, line) \
  (static_cast<bool>(condition)                                   \
       ? static_cast<void>(0)                                     \
       : ::quorvane::fault::assertion_failed(qv_log_module_pointer(module), text, source, line))

/// The same for a record that quotes the condition as it is written.
#define QV_FAULT_ASSERT_AT(module, condition, source, line) \
  QV_FAULT_ASSERT_AS(module, condition, #condition, source, line)

/// The same at the line of the check itself.
#define QV_FAULT_ASSERT(module, condition, source) \
  QV_FAULT_ASSERT_AS(module, condition, #condition, source, __LINE__)

// End of the public interface.

namespace quorvane {
namespace fault {

/// What QV_FAULT_EXPECT calls for a condition that doesn't hold. Always returns
/// false.
QV_EXPORT bool expectation_failed(void* module, int severity, const char* condition,
                                  const char* source, int line);

/// What QV_FAULT_ASSERT calls for a condition that doesn't hold.
[[noreturn]] QV_EXPORT void assertion_failed(void* module, const char* condition,
                                             const char* source, int line);

}  // namespace fault
}  // namespace quorvane
#endif  // __cplusplus

#endif  // QUORVANE_FAULT_H_
