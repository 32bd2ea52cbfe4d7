// What every kind of metric can do; metric.cpp lists the kinds.
#ifndef CIRCMETRICS_SRC_METRIC_H_
#define CIRCMETRICS_SRC_METRIC_H_

#include <memory>

namespace circmetrics {

class JsonWriter;

// Lives as long as the process; its type never changes. Thread-safe.
class Metric {
 public:
  Metric(const Metric&) = delete;
  Metric& operator=(const Metric&) = delete;
  virtual ~Metric() = default;

  int type() const { return type_; }

  // Writes the current value as one JSON value.
  virtual void write(JsonWriter& json) const = 0;

 protected:
  explicit Metric(int type) : type_(type) {}

 private:
  const int type_;
};

// A new metric of this circmetrics_type; null for an unknown type.
std::unique_ptr<Metric> make_metric(int type);

// The metric as a Kind, or null when it is of another kind.
template <typename Kind>
Kind* metric_as(void* handle) {
  auto* metric = static_cast<Metric*>(handle);
  return metric != nullptr && Kind::is_type(metric->type()) ? static_cast<Kind*>(metric) : nullptr;
}

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_METRIC_H_
