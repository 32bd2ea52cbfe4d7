/// \file
/// Typed settings from the environment.
///
/// Each call reads the variable afresh. An unset or empty variable gives the
/// default silently; a malformed value gives the default and one WARN record
/// through the library's internal module. Nothing throws. A set-user-id program, whose
/// environment is its caller's choice (secure_getenv(3)), gets the defaults.
/// Thread-safety: as getenv(3). Fork-safety: safe in a child.
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

/** True for "1" and "true", false for "0" and "false"; the words in any case. */
QV_EXPORT bool qv_env_config_get_bool(const char* name, bool default_value);

/** A whole decimal number as strtol(3) reads it, with nothing behind it. A value
 * that fits 64 but not 32 bits is cut to its low 32. errno is not cleared
 * before the conversion: with errno at ERANGE every value is refused. */
QV_EXPORT int qv_env_config_get_int(const char* name, int default_value);

/** The same through strtoull(3), in 64 bits: "-1" gives 2^64 - 1. */
QV_EXPORT uint64_t qv_env_config_get_uint64(const char* name, uint64_t default_value);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // QUORVANE_ENV_CONFIG_H_
