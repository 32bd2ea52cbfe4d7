/// \file
/// A search for bytes, and one event counter for the whole process.
///
/// Thread-safety: any thread. Fork-safety: a child goes on with a copy of the
/// counter. Everything here is safe in a signal handler.
#ifndef QUORVANE_SMALL_UTILS_H_
#define QUORVANE_SMALL_UTILS_H_

#include <stddef.h>

#include <quorvane/export.h>

#ifdef __cplusplus
#include <cstdint>
extern "C" {
#endif

/** The first place in the haystack where the needle's bytes lie, or null. An
 * empty needle lies at the haystack's start. As memmem(3), but that a pointer
 * may be null where its length is 0. */
QV_EXPORT void* qv_find_sequence(const void* haystack, size_t haystack_len, const void* needle,
                                 size_t needle_len);

#ifdef __cplusplus
}  // extern "C"

/// Adds 1 to the counter, sequentially consistent: no increment is ever lost. It
/// starts at 0, wraps at 2^64 and is never reset. Its functions have C++ linkage,
/// and their argument is ignored, so that they fit where a callback with a context
/// is asked for.
QV_EXPORT void qv_async_inc(void* ignored);

/// How often qv_async_inc was called, modulo 2^64.
QV_EXPORT std::uint64_t qv_async_get(void* ignored);
#endif  // __cplusplus

#endif  // QUORVANE_SMALL_UTILS_H_
