/// \file
/// The pid file: who wants to signal the processes that use this library (with
/// SIGQUIT, say) finds them in a directory.
///
/// With QV_PIDFILE_ROOT set, loading the library writes the file
/// "$QV_PIDFILE_ROOT" "qv.PID", without a separator in between: the process id
/// in decimal and a newline. A child of fork writes one of its own. A set-user-id
/// program, whose environment is its caller's choice (secure_getenv(3)), has none.
/// The file goes when its process exits, in an exit handler that loading the library
/// registers: handlers that were registered later still find the file, earlier ones
/// don't. A process that ends without running exit handlers
/// (_exit, a signal), or calls execve on a program without this library, leaves
/// its file behind. A child that no fork handler saw (vfork, posix_spawn, raw
/// clone) has none, and its end doesn't concern its parent's.
///
/// A file that can't be opened gives one ERROR record, and the process goes on
/// without. The library installs no handler of SIGQUIT.
#ifndef QUORVANE_PID_FILE_H_
#define QUORVANE_PID_FILE_H_

#include <quorvane/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Removes this process's pid file, if there is one; from then on there is none,
 * and later calls do nothing. A failure other than that the file has gone
 * already is reported at ERROR. Any thread; in a child it removes the child's.
 * Safe in a signal handler but for that record; may change errno. */
QV_EXPORT void qv_remove_sigquit_pidfile(void);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // QUORVANE_PID_FILE_H_
