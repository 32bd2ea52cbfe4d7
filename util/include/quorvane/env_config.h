/// \file
/// Typed settings from the environment.
///
/// Each call reads the variable again. An unset or empty variable gives the default
/// without a record; a malformed value gives the default and one WARN record through the
/// library's internal module. A set-user-id program, whose environment its caller chooses
/// (secure_getenv(3)), always gets the defaults. `name` must not be null. Nothing throws.
///
/// Thread-safety: any thread, as long as no thread changes the environment meanwhile
/// (getenv(3)). Fork-safety: safe in a child. Not in signal handlers.
#ifndef QUORVANE_ENV_CONFIG_H_
#define QUORVANE_ENV_CONFIG_H_

#include <quorvane/export.h>

#ifdef __cplusplus
#include <cstdint>
extern "C" {
#else
#include <stdbool.h>
#include <stdint.h>
#endif

/** True for "1" and "true", false for "0" and "false"; the words in any case. Spaces
 * around them are malformed. */
QV_EXPORT bool qv_env_config_get_bool(const char* name, bool default_value);

/** A decimal integer as strtol(3) reads it, with nothing after it. A number that fits in
 * 64 but not in 32 bits is cut to its low 32 bits. errno is not cleared
 * before the conversion: if it is ERANGE when the function is called, every value counts
 * as malformed. */
QV_EXPORT int qv_env_config_get_int(const char* name, int default_value);

/** The same with strtoull(3), for all 64 bits: "-1" gives 2^64 - 1. */
QV_EXPORT uint64_t qv_env_config_get_uint64(const char* name, uint64_t default_value);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // QUORVANE_ENV_CONFIG_H_
