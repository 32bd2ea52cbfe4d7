#include <quorvane/log.h>
#include <quorvane/module.h>

#include "src/metric_type.h"
#include "src/stats_instance.h"

namespace quorvane {
namespace stats {
namespace {

qv_stats_handle_t to_handle(void* metric) { return reinterpret_cast<qv_stats_handle_t>(metric); }

void* to_metric(qv_stats_handle_t handle) { return reinterpret_cast<void*>(handle); }

// `observed` is null unless the metric is a gauge.
qv_stats_handle_t create(void* module, const char* name, MetricType type,
                         const void* observed) noexcept try {
  CircMetricsModule* const stats = get_singleton_module();
  if (stats == nullptr) {
    return QV_STATS_INVALID_HANDLE;
  }
  void* const ns = stats->resolve_namespace(*static_cast<module::Module*>(module));
  void* const metric = ns == nullptr ? nullptr : stats->register_metric(ns, name, type);
  if (metric == nullptr) {
    return QV_STATS_INVALID_HANDLE;
  }
  if (type == kGaugeInt64 || type == kGaugeDouble) {
    stats->observe(metric, type, observed);
  }
  return to_handle(metric);
} catch (...) {
  return QV_STATS_INVALID_HANDLE;
}

// An update usually finds the module set up, but it may be the process's first use. Nothing
// tests whether statistics are on, or the handle.
// Kept: docs/compatibility.md
inline CircMetricsModule& module_to_update() {
  CircMetricsModule* const running = g_instance.load(std::memory_order_acquire);
  return running != nullptr ? *running : *get_singleton_module();
}

}  // namespace
}  // namespace stats
}  // namespace quorvane

using namespace quorvane::stats;

qv_stats_handle_t qv_stats_create_gauge_int64(void* module, const char* name,
                                              const int64_t* value) {
  return create(module, name, kGaugeInt64, value);
}

qv_stats_handle_t qv_stats_create_gauge_double(void* module, const char* name,
                                               const double* value) {
  return create(module, name, kGaugeDouble, value);
}

qv_stats_handle_t qv_stats_create_counter(void* module, const char* name) {
  return create(module, name, kCounter, nullptr);
}

qv_stats_handle_t qv_stats_create_histogram(void* module, const char* name) {
  return create(module, name, kHistogram, nullptr);
}

int qv_stats_counter_inc_do(qv_stats_handle_t handle, int64_t amount) {
  return module_to_update().add64(to_metric(handle), amount);
}

int qv_stats_hist_insert_do(qv_stats_handle_t handle, double value, uint32_t count) {
  return module_to_update().set_hist(to_metric(handle), value, count);
}

int qv_stats_hist_insert_fast_do(qv_stats_handle_t handle, int64_t value, int32_t scale,
                                 uint32_t count) {
  return module_to_update().set_hist_intscale(to_metric(handle), value, scale, count);
}
