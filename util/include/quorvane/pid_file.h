/// \file
/// The pid file, by which others find the processes that use this library, to send them
/// SIGQUIT, for example.
///
/// With QV_PIDFILE_ROOT set and not empty, loading the library writes the file
/// "$QV_PIDFILE_ROOT" "qv.PID", without a separator in between: the process id in decimal
/// and a newline. It overwrites any file of that name. A set-user-id program, whose
/// environment its caller chooses (secure_getenv(3)), has no file.
///
/// The process removes its file when it exits, in an exit handler that loading the library
/// registers: handlers registered later still find the file, earlier ones don't. A process
/// leaves its file behind if it ends without running exit handlers (_exit, a signal) or
/// calls execve on a program without this library.
///
/// A file that can't be opened is reported at ERROR by a severity 2 check of the
/// library's internal module, and the process continues without it. A file that can't be
/// filled, on a full disk, stays empty. The library installs no handler of SIGQUIT.
///
/// Thread-safety: any thread. Fork-safety: a child of fork writes a file of its own. A
/// child that runs no fork handlers (vfork, posix_spawn, raw clone) has none, and leaves
/// its parent's alone.
#ifndef QUORVANE_PID_FILE_H_
#define QUORVANE_PID_FILE_H_

#include <quorvane/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Removes this process's pid file, if there is one; later calls do nothing, whether this
 * one succeeds or not. A failure is reported at ERROR by a severity 2 check; a file that
 * somebody else has removed is no failure. Any thread; in a child it removes the child's
 * file. Safe in a signal handler unless it has a failure to report; may change errno. */
// Kept: docs/compatibility.md
QV_EXPORT void qv_remove_sigquit_pidfile(void);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // QUORVANE_PID_FILE_H_
