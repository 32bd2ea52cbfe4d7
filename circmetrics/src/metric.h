// What every kind of metric can do; metric.cpp lists the kinds.
#ifndef CIRCMETRICS_SRC_METRIC_H_
#define CIRCMETRICS_SRC_METRIC_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace circmetrics {

class JsonWriter;
class KeptWords;

// Lives as long as the process; its type never changes. Thread-safe.
class Metric {
 public:
  Metric(const Metric&) = delete;
  Metric& operator=(const Metric&) = delete;
  virtual ~Metric() = default;

  int type() const { return type_; }

  // Writes the current value as one JSON value.
  virtual void write(JsonWriter& json) const = 0;

  // What a child of fork remembers of the values that it starts with. From the words that `keep`
  // adds, `write_kept` writes what `write` would have written. A gauge has nothing to keep.
  virtual void keep(KeptWords&) const {}
  virtual void write_kept(JsonWriter&, std::span<const std::uint64_t>) const {}

  // The list of all metrics, for a fork handler, which can't allocate. Call `list` once, with the
  // registration lock held.
  void list();
  static const Metric* newest();
  const Metric* older() const { return older_; }

 protected:
  explicit Metric(int type) : type_(type) {}

 private:
  const int type_;
  const Metric* older_ = nullptr;
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
