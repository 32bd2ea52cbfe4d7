/// \file
/// A search for bytes, and an event counter for the whole process.
///
/// Thread-safety: any thread. Fork-safety: a child continues with a copy of the counter.
/// Everything here is safe in a signal handler.
#ifndef QUORVANE_SMALL_UTILS_H_
#define QUORVANE_SMALL_UTILS_H_

#include <stddef.h>

#include <quorvane/export.h>

#ifdef __cplusplus
#include <cstdint>
extern "C" {
#endif

/** The first place in the haystack that has the needle's bytes, or null. An empty needle
 * is found at the haystack's start. Like memmem(3), except that a pointer may be null
 * when its length, in bytes, is 0. */
QV_EXPORT void* qv_find_sequence(const void* haystack, size_t haystack_len, const void* needle,
                                 size_t needle_len);

#ifdef __cplusplus
}  // extern "C"

/// Adds 1 to the counter, atomically and in sequentially consistent order. The counter
/// starts at 0, wraps at 2^64 and is never reset. Its functions have C++ linkage, and
/// ignore their argument, so that they can serve as callbacks that take a context.
// Kept: docs/compatibility.md
QV_EXPORT void qv_async_inc(void* ignored);

/// How many times qv_async_inc was called, modulo 2^64.
QV_EXPORT std::uint64_t qv_async_get(void* ignored);
#endif  // __cplusplus

#endif  // QUORVANE_SMALL_UTILS_H_
