#include "gauge.h"

#include <cstdint>

#include "json_writer.h"

namespace circmetrics {
namespace {

// Atomic: the caller may be writing its variable.
template <typename Value>
Value read(const void* address) {
  Value value;
  __atomic_load(static_cast<const Value*>(address), &value, __ATOMIC_RELAXED);
  return value;
}

}  // namespace

void Gauge::write(JsonWriter& json) const {
  const void* address = address_.load(std::memory_order_acquire);
  if (address == nullptr) {
    json.null();
  } else if (type() == CIRCMETRICS_GAUGE_INT64) {
    json.number(read<std::int64_t>(address));
  } else {
    json.number(read<double>(address));
  }
}

}  // namespace circmetrics
