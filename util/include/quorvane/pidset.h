/** \file
 * A sorted set of process ids in a file of one page, which several processes map
 * and share.
 *
 * The file is the caller's: it exists before it is opened, and its ids stay in
 * it until somebody removes them, also when their processes have ended. The page
 * holds a 64-bit count and then 32-bit ids, ascending.
 *
 * A process may be killed at any time: the page keeps every id but the one that
 * it was adding or removing, which may be there or not. One id may then be there
 * twice, and count twice, until the next change by anybody, which mends that.
 *
 * No function logs. Those that change the set hold an exclusive flock(2) on the
 * file meanwhile; none calls flock again when a signal has cut it short (EINTR).
 *
 * Thread-safety: one thread at a time may use a handle.
 * Fork-safety: an inherited handle works, but it shares its lock with the
 * parent's, so neither keeps the other out. A child that changes the set, or
 * locks it, opens the file itself; a clone is not enough.
 *
 * Handles must not be null. The file must keep its size while it is open: who
 * touches a page that was cut off gets SIGBUS. */
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

/** A handle for an open set. */
typedef struct qv_pidset qv_pidset_t;

/** Opens the set in the existing file `path`, waiting for its lock. An empty file
 * becomes an empty set of one page of zeros. Null, with errno from the call that
 * failed, when the file can't be opened or qv_pidset_open_fd fails; the latter
 * leaves a descriptor behind that nobody knows, except when the count is wrong.
 * The descriptor survives an exec and is never 0, 1 or 2. */
QV_EXPORT qv_pidset_t* qv_pidset_open(const char* path);

/** The same for a descriptor that is open for reading and writing (with another
 * one, as with a kernel that refuses the mapping, the process may take SIGSEGV).
 * The handle owns `fd` from now on. Null when the kernel refuses something, when
 * the size is neither 0 nor one page (`fd` stays the caller's in both cases), or
 * when the stored count exceeds the capacity (`fd` is closed). */
QV_EXPORT qv_pidset_t* qv_pidset_open_fd(int fd);

/** A second handle for the same set, on a duplicate of the descriptor: it has its
 * own life, but shares the lock. Null when that fails; no descriptor is left
 * behind. If that is because the count has become wrong, the duplicate's number
 * is closed twice, so let no other thread open files then. */
QV_EXPORT qv_pidset_t* qv_pidset_clone(qv_pidset_t* set);

/** Unmaps the page, closes the descriptor (which gives its lock up unless a clone
 * or another process shares it) and frees the handle. */
QV_EXPORT void qv_pidset_close(qv_pidset_t* set);

/** Adds an id, waiting for the lock. 0: added; 1: it was there already; 2: the set
 * is full; 999: the lock could not be taken, see errno. Releases the lock, also
 * one that qv_pidset_lock_contains took. */
QV_EXPORT int qv_pidset_add(qv_pidset_t* set, int32_t pid);

/** Removes an id if it is there, waiting for the lock. 0, or -1 with errno when
 * the lock could not be taken (nothing is changed) or not be released. Releases
 * the lock as qv_pidset_add does. */
QV_EXPORT int qv_pidset_remove(qv_pidset_t* set, int32_t pid);

/** Whether the id is in the set. Takes no lock: it may miss an id while another
 * process is moving the ids, unless the caller brackets it with the next two. */
QV_EXPORT bool qv_pidset_contains(qv_pidset_t* set, int32_t pid);

/** Takes the lock, waiting for it, for a consistent view. 0, or 999 with errno. */
QV_EXPORT int qv_pidset_lock_contains(qv_pidset_t* set);

/** Releases the lock. 0, or -1 with errno. */
QV_EXPORT int qv_pidset_unlock_contains(qv_pidset_t* set);

/** The index of the first id that is not less than `pid`, or -1. No lock. */
QV_EXPORT int64_t qv_pidset_ge_index(qv_pidset_t* set, int32_t pid);

/** The shared count, for reading under the lock. Lives as long as the handle. */
QV_EXPORT uint64_t* qv_pidset_count_ptr(qv_pidset_t* set);

/** The first of the shared ids, ascending; for reading under the lock. They live
 * as long as the handle. */
QV_EXPORT int32_t* qv_pidset_pidlist(qv_pidset_t* set);

/** How many ids a set holds: 1022 with pages of 4096 bytes. */
QV_EXPORT uint64_t qv_pidset_max_pid_count(void);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // QUORVANE_PIDSET_H_
