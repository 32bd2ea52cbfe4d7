/** \file
 * A sorted set of process ids in a file of one page, which several processes map
 * and share.
 *
 * The caller provides the file. Ids stay in it until somebody removes them, even if their
 * processes have ended. The page holds a 64-bit count, then 32-bit ids in ascending order.
 *
 * A process may be killed at any time: the page keeps every id except the one that the
 * process was adding or removing, which may be there or not. One id may then be there
 * twice, and count twice, until the next change by any process repairs it.
 *
 * No function logs. Those that change the set hold an exclusive flock(2) on the file
 * meanwhile; none repeats an flock that a signal interrupts (EINTR).
 *
 * Thread-safety: one thread at a time may use a handle; different handles are
 * independent, except that a clone shares the lock.
 * Fork-safety: an inherited handle works, but it shares the parent's lock, so neither
 * process excludes the other. A child that changes or locks the set must open the file
 * itself; a clone isn't enough. Not in signal handlers.
 *
 * Handles must not be null. The file must keep its size while it is open: touching a page
 * that has been cut off raises SIGBUS. */
#ifndef QUORVANE_PIDSET_H_
#define QUORVANE_PIDSET_H_

#include <quorvane/export.h>

#ifdef __cplusplus
#include <cstdint>
extern "C" {
#else
#include <stdbool.h>
#include <stdint.h>
#endif

/** A handle for an open set. It owns its descriptor and its mapping. */
typedef struct qv_pidset qv_pidset_t;

/** Opens the set in the existing file `path`. Waits for the lock, and releases it before
 * returning. An empty file becomes an empty set: one page of zeros. Returns null, with
 * errno from the system call that failed, when the file can't be opened or
 * qv_pidset_open_fd fails. In the latter case the descriptor is leaked, except when the
 * stored count is wrong. The descriptor survives an exec and is never 0, 1 or 2. */
QV_EXPORT qv_pidset_t* qv_pidset_open(const char* path);

/** The same for `fd`, which must be open for reading and writing. If it isn't, or if the
 * kernel refuses the mapping, SIGSEGV may end the process. Returns a handle that owns
 * `fd`. Returns null in three cases: a system call or an allocation fails, or the size is
 * neither 0 nor one page (`fd` stays the caller's in both), or the stored count exceeds
 * the capacity (`fd` is closed). In the last two errno means nothing. */
QV_EXPORT qv_pidset_t* qv_pidset_open_fd(int fd);

/** A second handle for the same set, on a duplicate of the descriptor. It is closed
 * separately but shares the lock; making it releases that lock. On failure returns null
 * and leaves no descriptor open. If the stored count has become wrong, the duplicate's
 * number is closed twice, so no other thread should open files meanwhile. */
QV_EXPORT qv_pidset_t* qv_pidset_clone(qv_pidset_t* set);

/** Unmaps the page, closes the descriptor and frees the handle. This releases a held lock
 * unless a clone or another process shares it. */
QV_EXPORT void qv_pidset_close(qv_pidset_t* set);

/** Adds any 32-bit id, waiting for the lock. Returns 0 when it is added, 1 when it was
 * there already, 2 when the set is full, and 999 with errno when the lock could not be
 * taken. Releases the lock, even one that qv_pidset_lock_contains took; a failure to
 * release it is not reported. */
QV_EXPORT int qv_pidset_add(qv_pidset_t* set, int32_t pid);

/** Removes an id if it is there, waiting for the lock. Returns 0, or -1 with errno when
 * the lock could not be taken (nothing is changed) or released. Releases the lock as
 * qv_pidset_add does. */
QV_EXPORT int qv_pidset_remove(qv_pidset_t* set, int32_t pid);

/** Whether the id is in the set. Takes no lock: a call may miss an id while another
 * process is changing the set, unless the caller holds the lock (see the next two
 * functions). */
QV_EXPORT bool qv_pidset_contains(qv_pidset_t* set, int32_t pid);

/** Takes the lock, waiting for it, for a consistent view. Returns 0, or 999 with errno. */
QV_EXPORT int qv_pidset_lock_contains(qv_pidset_t* set);

/** Releases the lock. Returns 0, or -1 with errno. */
QV_EXPORT int qv_pidset_unlock_contains(qv_pidset_t* set);

/** The index of the first id that is not less than `pid`, or -1 if there is none.
 * Takes no lock. */
QV_EXPORT int64_t qv_pidset_ge_index(qv_pidset_t* set, int32_t pid);

/** The shared count, for reading under the lock. It may be more than the capacity if
 * another process has damaged it. The pointer is valid as long as the handle lives. */
QV_EXPORT uint64_t* qv_pidset_count_ptr(qv_pidset_t* set);

/** The first of the shared ids, in ascending order, for reading under the lock. The
 * pointer is valid as long as the handle lives. */
QV_EXPORT int32_t* qv_pidset_pidlist(qv_pidset_t* set);

/** How many ids a set can hold: 1022 with pages of 4096 bytes. */
QV_EXPORT uint64_t qv_pidset_max_pid_count(void);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // QUORVANE_PIDSET_H_
