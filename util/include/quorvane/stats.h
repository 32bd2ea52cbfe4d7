/// \file
/// Counters, gauges and histograms, registered under a log module's path and
/// reported as JSON lines.
///
/// Statistics are on when QV_STATS_REPORT_FILE names the file that receives the
/// reports: one line every QV_STATS_REPORT_PERIOD seconds (0 or unset: none) and
/// one at process exit. The recorder, libcircmetrics.so, is loaded at run time.
///
/// Thread-safety: every function from any thread. Fork-safety: a child's reports
/// hold the child's own view; it has no report thread. Not in signal handlers.
#ifndef QUORVANE_STATS_H_
#define QUORVANE_STATS_H_

#include <quorvane/export.h>

#ifdef __cplusplus
#include <cstdint>
extern "C" {
#else
#include <stdint.h>
#endif

/** A metric; QV_STATS_INVALID_HANDLE when it could not be made. */
typedef uint64_t qv_stats_handle_t;

/** What stands for no metric. */
#define QV_STATS_INVALID_HANDLE (~(qv_stats_handle_t)0)

/**@{ Makes a metric called `name` inside the nested namespaces that the path of
 * `module` spells; the same name gives the same metric. Returns the invalid
 * handle when statistics are off, the path has an empty component, or the
 * recorder refuses. A module without a path also logs a WARN record on itself.
 *
 * A gauge reads *value at every report: the variable must stay where it is for
 * the rest of the process. */
QV_EXPORT qv_stats_handle_t qv_stats_create_gauge_int64(void* module, const char* name,
                                                        const int64_t* value);
QV_EXPORT qv_stats_handle_t qv_stats_create_gauge_double(void* module, const char* name,
                                                         const double* value);
QV_EXPORT qv_stats_handle_t qv_stats_create_counter(void* module, const char* name);
QV_EXPORT qv_stats_handle_t qv_stats_create_histogram(void* module, const char* name);
/**@}*/

/**@{ The updates. They test nothing: call them with a valid handle only, or use the
 * callers below, which test it. They return what the recorder returns. */
QV_EXPORT int qv_stats_counter_inc_do(qv_stats_handle_t handle, int64_t amount);
QV_EXPORT int qv_stats_hist_insert_do(qv_stats_handle_t handle, double value, uint32_t count);
QV_EXPORT int qv_stats_hist_insert_fast_do(qv_stats_handle_t handle, int64_t value, int32_t scale,
                                           uint32_t count);
/**@}*/

/** Adds `amount` to a counter; nothing for the invalid handle. */
static inline void qv_stats_counter_inc(qv_stats_handle_t handle, int64_t amount) {
  if (handle != QV_STATS_INVALID_HANDLE) {
    (void)qv_stats_counter_inc_do(handle, amount);
  }
}

/** Records `count` samples of `value`; nothing for the invalid handle. */
static inline void qv_stats_hist_insert(qv_stats_handle_t handle, double value, uint32_t count) {
  if (handle != QV_STATS_INVALID_HANDLE) {
    (void)qv_stats_hist_insert_do(handle, value, count);
  }
}

/** Records `count` samples of value * 10^scale; nothing for the invalid handle. */
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

/// The binding to the recorder. One exists per process, from the first use of
/// statistics until the process ends.
class QV_EXPORT CircMetricsModule {
 public:
  /// Takes over `handle`, the recorder library as dlopen(3) gave it; opens the
  /// report file `path` for appending; starts the report thread when `period` is
  /// not 0. A missing symbol aborts; any other failure leaves is_usable() false.
  CircMetricsModule(void* handle, std::chrono::duration<long> period, const char* path);

  /// Only for a module that is not usable: a running report thread would end the
  /// process.
  ~CircMetricsModule();
  CircMetricsModule(const CircMetricsModule&) = delete;
  CircMetricsModule& operator=(const CircMetricsModule&) = delete;

  /// Whether there are a recorder and a report file.
  bool is_usable() const { return recorder_ != nullptr; }

  /// Appends one line to the report file. Best effort; nothing after the process's last
  /// report.
  void report_now();

  /// The report thread: report_now() every period, for ever.
  [[noreturn]] void report_thr();

  /// The namespace that the module's path spells, or null.
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
  ReportFile* file_;  // behind report_fd_
  std::atomic<std::uint64_t> mutex_generation_;
};

/// The process's module, set up from the environment on the first call; null
/// when statistics are off.
QV_EXPORT CircMetricsModule* get_singleton_module();

}  // namespace stats
}  // namespace quorvane
#endif  // __cplusplus

#endif  // QUORVANE_STATS_H_
