// A variable of the caller, read at every output.
#ifndef CIRCMETRICS_SRC_GAUGE_H_
#define CIRCMETRICS_SRC_GAUGE_H_

#include <atomic>

#include "circmetrics.h"
#include "metric.h"

namespace circmetrics {

// Reads the variable with one atomic load. Thread-safe.
class Gauge final : public Metric {
 public:
  static bool is_type(int type) {
    return type == CIRCMETRICS_GAUGE_INT64 || type == CIRCMETRICS_GAUGE_DOUBLE;
  }

  explicit Gauge(int type) : Metric(type) {}

  void observe(const void* address) { address_.store(address, std::memory_order_release); }
  void write(JsonWriter& json) const override;

 private:
  std::atomic<const void*> address_{nullptr};
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_GAUGE_H_
