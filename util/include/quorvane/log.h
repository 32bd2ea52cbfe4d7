/// \file
/// Log levels, one-line log records and the process-wide outlet that receives them.
///
/// Thread-safety: any thread may log at any time; a record is one write(2) per
/// descriptor, so records of different threads and processes never mix within a line.
/// Fork-safety: a child may log at once; its records carry its own ids. Signal handlers:
/// qv_log_reopen only.
#ifndef QUORVANE_LOG_H_
#define QUORVANE_LOG_H_

#include <stdarg.h>

#include <quorvane/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The levels. A module at a higher number logs more. TRACE is below DEBUG. In C++ the
 * underlying type is fixed, so that a value outside the table isn't undefined behaviour. */
// Kept: docs/compatibility.md
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

/** Writes one record of `level` with the printf-style message to the outlet of `module`,
 * which qv_module_create or qv_module_find returned. Doesn't look at the module's level:
 * the caller does, usually with QV_LOG. `module` and `format` must not be null;
 * `reserved` is 0.
 *
 * A record goes to the outlet's `fd`, and at the levels ERROR and OFF to its `error_fd`
 * too. Descriptor 0 counts as none and gets nothing. A write to -1 is tried and fails. A
 * failed write drops the record, and a short one isn't continued; one that a signal
 * interrupts is repeated. A record is at most 4096 bytes: a longer message is cut. A
 * message that can't be formatted (a %ls that has no conversion, say) is cut at that point.
 * Keeps errno. Any thread; safe in a child of fork; not in a signal handler (the message
 * goes through vsnprintf). */
QV_EXPORT void qv_log_do(void* module, qv_log_level_t level, unsigned long reserved,
                         const char* format, ...) __attribute__((format(printf, 4, 5)));

/** qv_log_do with an argument list. */
QV_EXPORT void qv_logv_do(void* module, qv_log_level_t level, unsigned long reserved,
                          const char* format, va_list args) __attribute__((format(printf, 4, 0)));

/** Opens the path of the log file again, creates the file if it is missing, and puts it in
 * place of the open one: for a log that was renamed. No record is lost, and each is whole in
 * one of the two files. The path is the one that was opened at load, even after a chdir. The
 * descriptor keeps its number and its flags.
 *
 * Returns 0 and keeps errno, or returns -1 with errno and leaves the log as it was: with an
 * error of open(2); ENOENT too if a relative path had no working directory at load; EBADF if
 * the program has closed the descriptor, even if it has opened another file under its number.
 * Without a log file, or if the file couldn't be opened at load, does nothing and returns 0.
 * A call while another one is in progress, perhaps in the thread that it interrupts, returns 0
 * at once; the other one then opens the path once more. Logs nothing. Doesn't block on a FIFO.
 *
 * Any thread; signal handlers; a child of fork, which reopens its own descriptor only. A
 * duplicate of the descriptor stays open on the old file. */
QV_EXPORT int qv_log_reopen(void);

#ifdef __cplusplus
}  // extern "C"
#endif

/** The level of a module, which must not be null: its first field. */
static inline int qv_log_module_level(const void* module) {
  return (int)*(const qv_log_level_t*)module;
}

/** \cond what QV_LOG accepts as a module */
#ifdef __cplusplus
static inline void* qv_log_module_pointer(void* module) { return module; }
#else
#define qv_log_module_pointer(module) (module)
#endif
/** \endcond */

/** QV_LOG(module, LEVEL, format, ...): logs when the level of `module` is LEVEL or
 * above; otherwise costs one load and one comparison, and evaluates no argument after
 * LEVEL. LEVEL is one of OFF ... ALL, with or without its prefix QV_LOG_LEVEL_. In C++
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

/// Where records go.
///
/// A descriptor of 0 or -1 means none: 0 is skipped, so that a file which a program has
/// opened as descriptor 0 gets no record, and a write to -1 is tried and fails.
/// Thread-safety: set up once per process; only read afterwards. Fork-safety: a child
/// logs through its copy, to the same files.
struct LoggingModuleData {
  int fd;                ///< the log file; 0 or -1: none
  int error_fd;          ///< receives ERROR and OFF records as well; 0 or -1: none
  qv_log_level_t level;  ///< the level of a new module
};

///@{ The names of the environment variables that choose the log file and level.
QV_EXPORT extern const char* QV_LOG_FILE_ENV;         // "QV_LOG_FILE"
QV_EXPORT extern const char* QV_LOG_FILE_GLOBAL_ENV;  // "QV_LOG_FILE_Global"
QV_EXPORT extern const char* QV_LOG_LEVEL_ENV;        // "QV_LOG_LEVEL"
///@}

/// The only outlet of the process: fd -1, error_fd -1 and level ERROR until
/// get_singleton_outlet() has run, which happens when the library is loaded.
QV_EXPORT extern LoggingModuleData g_singleton_outlet;

/// The level's name; "UNKNOWN" outside OFF ... ALL. The string lives for ever. Any thread.
QV_EXPORT const std::string& level_to_string(qv_log_level_t level);

/// Finds the level of exactly this name ("WARN", not "warn"). Stores it in `out` and
/// returns true; without such a level leaves `out` alone and returns false. Throws
/// std::logic_error when `text` is null. Any thread.
QV_EXPORT bool parse_level_string(const char* text, qv_log_level_t& out);

/// Formats one record and writes it to `outlet`, as qv_log_do does to a module's.
QV_EXPORT void logv_do(LoggingModuleData& outlet, qv_log_level_t level, const char* format,
                       va_list args) __attribute__((format(printf, 3, 0)));

/// The log file that the environment names: QV_LOG_FILE, else QV_LOG_FILE_Global, else
/// $HOME/.quorvane/qv_Global.HOST.log, else "". An empty variable counts as unset, and a
/// host name of more than 63 bytes as none. Always "" in a set-user-id program, whose
/// environment its caller chooses (secure_getenv(3)). Creates no directory. Any thread,
/// as long as no thread changes the environment meanwhile.
QV_EXPORT std::string get_default_log_path();

/// Returns the outlet, which the first call sets up from the environment. A log file that
/// can't be opened gives one line on standard error. The file's descriptor survives an exec
/// and is never 0, 1 or 2, even where these are closed. Any thread; safe in a child of fork.
QV_EXPORT LoggingModuleData* get_singleton_outlet();

}  // namespace logging
}  // namespace quorvane
#endif  // __cplusplus

#endif  // QUORVANE_LOG_H_
