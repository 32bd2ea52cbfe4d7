/// \file
/// Fault checks, and a stack trace when the process takes a segmentation fault.
///
/// A check has a severity; lower is more serious. A failed expectation is logged at ERROR
/// when its severity is at most the module's fault_log_level (2 by default), and aborts
/// when it is at most the module's fault_abort_level (0 by default). A failed assertion
/// is always logged, whatever the module's level, and always aborts.
///
/// Negative numbers mean different things to the two kinds of expectation:
/// - In qv_fault_expect the comparisons are unsigned, and a negative number becomes 2^31 or
///   more, which is above any usual severity. With a negative fault_log_level every failed
///   check is logged; with a negative fault_abort_level every failed check aborts. A
///   severity of -1 is the least serious one. A module at any level except OFF logs,
///   even at a negative level.
/// - In the C++ macros the comparisons are signed. With a negative fault_log_level no check
///   of severity 0 or more is logged; with a negative fault_abort_level none aborts. A
///   severity of -1 is more serious than 0. Only a module above OFF logs, so one at a
///   negative level doesn't.
///
/// Thread-safety: any thread; checks keep no state. Fork-safety: safe in a child. Signal
/// handlers: a check that holds does nothing; a check must not fail there, since it would
/// log.
#ifndef QUORVANE_FAULT_H_
#define QUORVANE_FAULT_H_

#include <quorvane/export.h>
#include <quorvane/log.h>

#ifdef __cplusplus
extern "C" {
#else
#include <stdbool.h>
#endif

/** Returns `condition`. When it is false, logs the printf-style message at ERROR through
 * `module` and aborts, as the module's thresholds say. A module at OFF logs nothing but
 * aborts all the same. The comparisons are unsigned: with a negative fault_log_level
 * every failed check is logged, with a negative fault_abort_level every one aborts.
 * `module` and `format` must not be null. */
QV_EXPORT bool qv_fault_expect(void* module, unsigned severity, bool condition, const char* format,
                               ...) __attribute__((format(printf, 4, 5)));

/** Makes SIGSEGV print "Error: signal 11:" and up to 64 stack frames on standard error,
 * and abort. Replaces the program's own SIGSEGV handler; children inherit the new one.
 * The handler runs on the stack of the failing thread, so an overflow of that stack is
 * not reported. Call this once, from any thread, not in a signal handler. */
QV_EXPORT void qv_enable_stack_print_on_segfault(void);

#ifdef __cplusplus
}  // extern "C"

#include <cstdlib>

#include <quorvane/module.h>

/// QV_FAULT_EXPECT_AS(module, severity, condition, text, source, line): true when the
/// condition holds; otherwise it reports a failed expectation and is false. The condition
/// is evaluated once. The record quotes the C strings `text` and `source`, and `line`.
/// `module` is a quorvane::module::Module* or a quorvane::Module. The comparisons are
/// signed: with a negative fault_log_level no check of severity 0 or more is logged, with
/// a negative fault_abort_level none aborts.
#define QV_FAULT_EXPECT_AS(module, severity, condition, text, source, line)                      \
  (static_cast<bool>(condition) ||                                                               \
   (::quorvane::fault::expectation_failed(qv_log_module_pointer(module), severity, text, source, \
                                          line),                                                 \
    false))

/// QV_FAULT_EXPECT_AS with a record that quotes the condition as it is written.
#define QV_FAULT_EXPECT_AT(module, severity, condition, source, line) \
  QV_FAULT_EXPECT_AS(module, severity, condition, #condition, source, line)

/// QV_FAULT_EXPECT_AT with the line of the check itself.
#define QV_FAULT_EXPECT(module, severity, condition, source) \
  QV_FAULT_EXPECT_AS(module, severity, condition, #condition, source, __LINE__)

/// QV_FAULT_ASSERT_AS(module, condition, text, source, line): logs at ERROR, whatever the
/// module's level, and aborts unless the condition holds.
#define QV_FAULT_ASSERT_AS(module, condition, text, source, line) \
  (static_cast<bool>(condition)                                   \
       ? static_cast<void>(0)                                     \
       : ::quorvane::fault::assertion_failed(qv_log_module_pointer(module), text, source, line))

/// QV_FAULT_ASSERT_AS with a record that quotes the condition as it is written.
#define QV_FAULT_ASSERT_AT(module, condition, source, line) \
  QV_FAULT_ASSERT_AS(module, condition, #condition, source, line)

/// QV_FAULT_ASSERT_AT with the line of the check itself.
#define QV_FAULT_ASSERT(module, condition, source) \
  QV_FAULT_ASSERT_AS(module, condition, #condition, source, __LINE__)

// End of the public interface.

namespace quorvane {
namespace fault {

/// What QV_FAULT_EXPECT calls when its condition is false. Always returns false.
QV_EXPORT bool expectation_failed(void* module, int severity, const char* condition,
                                  const char* source, int line);

/// What QV_FAULT_ASSERT calls when its condition is false.
[[noreturn]] QV_EXPORT void assertion_failed(void* module, const char* condition,
                                             const char* source, int line);

}  // namespace fault
}  // namespace quorvane
#endif  // __cplusplus

#endif  // QUORVANE_FAULT_H_
