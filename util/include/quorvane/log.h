/// \file
/// Log levels, one-line log records and the process-wide outlet that receives them.
///
/// Thread-safety: any thread may log at any time; a record is one write(2) per
/// descriptor, so records of threads and processes never mix within a line.
/// Fork-safety: a child may log at once; its records carry its own ids.
#ifndef QUORVANE_LOG_H_
#define QUORVANE_LOG_H_

#include <stdarg.h>

#include <quorvane/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A higher number says more. TRACE sorts below DEBUG. In C++ the type is fixed,
 * so that a value outside the table is a value and no undefined behaviour. */
#ifdef __cplusplus
typedef enum qv_log_level_t : int {
#else
typedef enum qv_log_level_t {
#endif
  QV_LOG_LEVEL_OFF = 0,
  QV_LOG_LEVEL_ERROR = 1,
  QV_LOG_LEVEL_WARN = 2,
  QV_LOG_LEVEL_INFO = 3,
  QV_LOG_LEVEL_TRACE = 4,
  QV_LOG_LEVEL_DEBUG = 5,
  QV_LOG_LEVEL_ALL = 6,
} qv_log_level_t;

/** Writes one record of `level` with the printf-style message to the outlet of
 * `module` (a module as qv_module_create or qv_module_find gives it), without
 * asking the module's level: that is the caller's part, and QV_LOG plays it.
 * A record is at most 4096 bytes; a longer message is cut, and so is one that can't be
 * formatted any further (a %ls without a conversion, say). `reserved` is 0.
 * Failed writes are dropped. Keeps errno. Any thread; safe after fork; not in
 * a signal handler (the message goes through vsnprintf). */
QV_EXPORT void qv_log_do(void* module, qv_log_level_t level, unsigned long reserved,
                         const char* format, ...) __attribute__((format(printf, 4, 5)));

/** qv_log_do for an argument list. */
QV_EXPORT void qv_logv_do(void* module, qv_log_level_t level, unsigned long reserved,
                          const char* format, va_list args) __attribute__((format(printf, 4, 0)));

#ifdef __cplusplus
}  // extern "C"
#endif

/** The level that a module stands at: its first field. */
static inline int qv_log_module_level(const void* module) {
  return (int)*(const qv_log_level_t*)module;
}

/** \cond what QV_LOG takes for a module */
#ifdef __cplusplus
static inline void* qv_log_module_pointer(void* module) { return module; }
#else
#define qv_log_module_pointer(module) (module)
#endif
/** \endcond */

/** QV_LOG(module, LEVEL, format, ...): logs when `module` stands at LEVEL or
 * above; otherwise costs one load and one compare, and evaluates no argument.
 * LEVEL is one of OFF ... ALL, alone or with its prefix QV_LOG_LEVEL_. In C++
 * `module` may also be a quorvane::Module. */
#define QV_LOG(module, LEVEL, ...)                                     \
  do {                                                                 \
    void* qv_log_m_ = qv_log_module_pointer(module);                   \
    if (qv_log_module_level(qv_log_m_) >= (int)QV_LOG_LEVEL_##LEVEL) { \
      qv_log_do(qv_log_m_, QV_LOG_LEVEL_##LEVEL, 0, __VA_ARGS__);      \
    }                                                                  \
  } while (0)

/// \cond the levels with their prefix
#define QV_LOG_LEVEL_QV_LOG_LEVEL_OFF QV_LOG_LEVEL_OFF
#define QV_LOG_LEVEL_QV_LOG_LEVEL_ERROR QV_LOG_LEVEL_ERROR
#define QV_LOG_LEVEL_QV_LOG_LEVEL_WARN QV_LOG_LEVEL_WARN
#define QV_LOG_LEVEL_QV_LOG_LEVEL_INFO QV_LOG_LEVEL_INFO
#define QV_LOG_LEVEL_QV_LOG_LEVEL_TRACE QV_LOG_LEVEL_TRACE
#define QV_LOG_LEVEL_QV_LOG_LEVEL_DEBUG QV_LOG_LEVEL_DEBUG
#define QV_LOG_LEVEL_QV_LOG_LEVEL_ALL QV_LOG_LEVEL_ALL
/// \endcond

#ifdef __cplusplus
#include <string>

namespace quorvane {
namespace logging {

/// Where records go. Set up once per process; only read afterwards.
struct LoggingModuleData {
  int fd;                ///< the log file; -1: none
  int error_fd;          ///< also receives ERROR and OFF records; -1: none
  qv_log_level_t level;  ///< what a new module starts at
};

///@{ The names of the environment variables that choose the log file and level.
QV_EXPORT extern const char* QV_LOG_FILE_ENV;         // "QV_LOG_FILE"
QV_EXPORT extern const char* QV_LOG_FILE_GLOBAL_ENV;  // "QV_LOG_FILE_Global"
QV_EXPORT extern const char* QV_LOG_LEVEL_ENV;        // "QV_LOG_LEVEL"
///@}

/// The one outlet of the process: fd -1, error_fd -1 and level ERROR until
/// get_singleton_outlet() has run.
QV_EXPORT extern LoggingModuleData g_singleton_outlet;

/// The level's name, "UNKNOWN" outside OFF ... ALL. The string lives for ever.
QV_EXPORT const std::string& level_to_string(qv_log_level_t level);

/// Finds the level of exactly this name ("WARN", not "warn"). On a match stores
/// it in `out` and returns true; otherwise leaves `out` alone and returns false.
/// Throws std::logic_error when `text` is null.
QV_EXPORT bool parse_level_string(const char* text, qv_log_level_t& out);

/// Formats one record and writes it to `outlet`. See qv_log_do.
QV_EXPORT void logv_do(LoggingModuleData& outlet, qv_log_level_t level, const char* format,
                       va_list args) __attribute__((format(printf, 3, 0)));

/// The log file that the environment asks for: QV_LOG_FILE, else
/// QV_LOG_FILE_Global, else $HOME/.quorvane/qv_Global.HOST.log, else "". Always ""
/// in a set-user-id program, whose environment is its caller's choice
/// (secure_getenv(3)). Directories are not created.
QV_EXPORT std::string get_default_log_path();

/// Sets the outlet up from the environment on the first call (any thread) and
/// returns it. A log file that can't be opened gives one line on standard error. Its
/// descriptor is never 0, 1 or 2, also where these are closed.
QV_EXPORT LoggingModuleData* get_singleton_outlet();

}  // namespace logging
}  // namespace quorvane
#endif  // __cplusplus

#endif  // QUORVANE_LOG_H_
