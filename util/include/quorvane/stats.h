/// \file
/// Counters, gauges and histograms, registered under a log module's path and
/// reported as JSON lines.
///
/// Statistics are on when QV_STATS_REPORT_FILE names the file that receives the reports:
/// one line every QV_STATS_REPORT_PERIOD seconds (0 or unset: none) and one when the
/// process exits. The first use in a process sets them up: it reads the environment, opens
/// the file and loads the recorder, libcircmetrics.so. It logs the outcome through the
/// library's internal module, at INFO for on and off and at WARN for a failure, and aborts
/// if the recorder lacks one of its functions.
///
/// Thread-safety: any thread may call every function. Fork-safety: a child's reports hold
/// the child's own values; it has no report thread. Not in signal handlers.
#ifndef QUORVANE_STATS_H_
#define QUORVANE_STATS_H_

#include <quorvane/export.h>

#ifdef __cplusplus
#include <cstdint>
extern "C" {
#else
#include <stdint.h>
#endif

/** A metric, or QV_STATS_INVALID_HANDLE. Valid until the process ends. */
typedef uint64_t qv_stats_handle_t;

/** The handle of no metric. */
#define QV_STATS_INVALID_HANDLE (~(qv_stats_handle_t)0)

/**@{ Makes a metric called `name` inside the nested namespaces that the first route of
 * `module` spells; the same name and kind give the same metric. Returns the invalid handle
 * when statistics are off, when the route has an empty component before its last one, or
 * when the recorder refuses, as it does for a null name and for the name of a metric of
 * another kind. A module without a route also gives a WARN record, through that module.
 * `module` must not be null; `name` is copied.
 *
 * A gauge reads `*value` at every report: the variable must stay where it is for the rest
 * of the process. */
QV_EXPORT qv_stats_handle_t qv_stats_create_gauge_int64(void* module, const char* name,
                                                        const int64_t* value);
QV_EXPORT qv_stats_handle_t qv_stats_create_gauge_double(void* module, const char* name,
                                                         const double* value);
QV_EXPORT qv_stats_handle_t qv_stats_create_counter(void* module, const char* name);
QV_EXPORT qv_stats_handle_t qv_stats_create_histogram(void* module, const char* name);
/**@}*/

/**@{ Updates a metric. These functions test nothing: call them with a valid handle only,
 * or use the inline functions below, which test it. `amount` may be negative. They return
 * what the recorder returns: 0, or -1 when it refuses the update. */
QV_EXPORT int qv_stats_counter_inc_do(qv_stats_handle_t handle, int64_t amount);
QV_EXPORT int qv_stats_hist_insert_do(qv_stats_handle_t handle, double value, uint32_t count);
QV_EXPORT int qv_stats_hist_insert_fast_do(qv_stats_handle_t handle, int64_t value, int32_t scale,
                                           uint32_t count);
/**@}*/

/** Adds `amount`, which may be negative, to a counter; does nothing for the invalid
 * handle. */
static inline void qv_stats_counter_inc(qv_stats_handle_t handle, int64_t amount) {
  if (handle != QV_STATS_INVALID_HANDLE) {
    (void)qv_stats_counter_inc_do(handle, amount);
  }
}

/** Records `count` samples of `value` in a histogram; does nothing for the invalid
 * handle. */
static inline void qv_stats_hist_insert(qv_stats_handle_t handle, double value, uint32_t count) {
  if (handle != QV_STATS_INVALID_HANDLE) {
    (void)qv_stats_hist_insert_do(handle, value, count);
  }
}

/** Records `count` samples of value * 10^scale in a histogram; does nothing for the
 * invalid handle. */
static inline void qv_stats_hist_insert_fast(qv_stats_handle_t handle, int64_t value, int32_t scale,
                                             uint32_t count) {
  if (handle != QV_STATS_INVALID_HANDLE) {
    (void)qv_stats_hist_insert_fast_do(handle, value, scale, count);
  }
}

#ifdef __cplusplus
}  // extern "C"

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <thread>

namespace quorvane {
namespace module {
struct Module;
}
namespace stats {

class ReportFile;

/// The binding to the recorder. A process has one of its own, from the first use of
/// statistics until the process ends; see get_singleton_module.
///
/// Invariant: a usable module has a recorder and a report file, and stays usable.
/// Thread-safety: any thread may call every function; reports exclude each other.
/// Fork-safety: a child may use its copy, which reports the child's own values and has no
/// report thread. Not in signal handlers.
class QV_EXPORT CircMetricsModule {
 public:
  /// Takes over `handle`, the recorder library as dlopen(3) returned it, opens the report
  /// file `path` for appending, and starts the report thread when `period`, in seconds, is
  /// not 0. Failures are logged at WARN through the library's internal module. A missing
  /// symbol then aborts; without a file or recorder is_usable() is false; without a thread
  /// the module is usable all the same.
  CircMetricsModule(void* handle, std::chrono::duration<long> period, const char* path);

  /// Closes the file and the recorder library; WARN records report failures, among them
  /// that there is no file to close. Destroy only a module without a report thread: a
  /// running one makes the destructor abort.
  ~CircMetricsModule();
  CircMetricsModule(const CircMetricsModule&) = delete;
  CircMetricsModule& operator=(const CircMetricsModule&) = delete;

  /// Whether it has a recorder and a report file. Call the functions below, except
  /// report_now, only on a usable module.
  bool is_usable() const { return recorder_ != nullptr; }

  /// Appends one line to the report file, waiting for its lock. Reports no failure. Does
  /// nothing when the module isn't usable, and after the process's last report.
  void report_now();

  /// What the report thread runs: report_now() after every period, for ever; a
  /// negative period means no pause.
  [[noreturn]] void report_thr();

  /// The recorder's namespace that the module's first route spells, made when it isn't
  /// there. Null without a route (with a WARN record through that module), for a route
  /// with an empty component before its last one, and when the recorder refuses.
  void* resolve_namespace(const module::Module& module);

  ///@{ The recorder's functions, as libcircmetrics.so exports them.
  void* register_metric(void* ns, const char* name, int type) { return register_(ns, name, type); }
  int observe(void* metric, int type, const void* address) {
    return observe_(metric, type, address);
  }
  int add64(void* metric, std::int64_t amount) { return add64_(metric, amount); }
  int set_hist(void* metric, double value, std::uint32_t count) {
    return set_hist_(metric, value, count);
  }
  int set_hist_intscale(void* metric, std::int64_t value, std::int32_t scale, std::uint32_t count) {
    return set_hist_intscale_(metric, value, scale, count);
  }
  ///@}

  // End of the public interface.

 private:
  friend struct ProcessHooks;
  using WriteCallback = ssize_t (*)(void* closure, const void* bytes, std::size_t length);

  static ssize_t write_report(void* closure, const void* bytes, std::size_t length);
  template <typename Function>
  void look_up(Function*& function, const char* symbol);
  void look_up_all();
  void start_report_thread();
  void append_report();
  void report_last();
  void renew_mutex_in_child();

  void* (*recorder_alloc_)() = nullptr;
  void* (*recorder_global_ns_)(void* recorder) = nullptr;
  void* (*register_ns_)(void* recorder, void* parent, const char* name) = nullptr;
  void* (*register_)(void* ns, const char* name, int type) = nullptr;
  int (*observe_)(void* metric, int type, const void* address) = nullptr;
  int (*add64_)(void* metric, std::int64_t amount) = nullptr;
  int (*set_hist_)(void* metric, double value, std::uint32_t count) = nullptr;
  int (*set_hist_intscale_)(void* metric, std::int64_t value, std::int32_t scale,
                            std::uint32_t count) = nullptr;
  int (*output_json_)(void* recorder, int, int, WriteCallback callback, void* closure) = nullptr;
  void* recorder_ = nullptr;
  std::chrono::duration<long> period_;
  int report_fd_ = -1;
  std::mutex report_mutex_;
  std::thread report_thread_;
  void* library_;
  ReportFile* file_;  // the file that report_fd_ is open on
  std::atomic<std::uint64_t> mutex_generation_;
};

/// The process's module, which the first call sets up from the environment; null when
/// statistics are off. It lives until the process ends. Any thread; in a child of fork,
/// the child's.
QV_EXPORT CircMetricsModule* get_singleton_module();

}  // namespace stats
}  // namespace quorvane
#endif  // __cplusplus

#endif  // QUORVANE_STATS_H_
