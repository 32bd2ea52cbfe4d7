// The nine exported functions, which check the arguments and let no exception out.
#include <algorithm>
#include <new>
#include <string_view>

#include "circmetrics.h"
#include "counter.h"
#include "gauge.h"
#include "histogram.h"
#include "recorder.h"

namespace {

using circmetrics::Counter;
using circmetrics::Gauge;
using circmetrics::Histogram;
using circmetrics::metric_as;
using circmetrics::Namespace;
using circmetrics::Recorder;

constexpr int kOk = 0;
constexpr int kFailed = -1;
constexpr int kLayoutVersion = 1;
constexpr std::size_t kPieceSize = 16384;

int status(bool done) { return done ? kOk : kFailed; }

// False as soon as `write` takes nothing.
bool write_in_pieces(std::string_view text, circmetrics_write write, void* closure) {
  while (!text.empty()) {
    const std::size_t offered = std::min(text.size(), kPieceSize);
    const ssize_t taken = write(closure, text.data(), offered);
    if (taken <= 0) {
      return false;
    }
    text.remove_prefix(std::min(static_cast<std::size_t>(taken), offered));
  }
  return true;
}

}  // namespace

void* stats_recorder_alloc() { return Recorder::make(); }

void* stats_recorder_global_ns(void* recorder) {
  return recorder == nullptr ? nullptr : &static_cast<Recorder*>(recorder)->root();
}

void* stats_register_ns(void* recorder, void* parent, const char* name) try {
  if (recorder == nullptr || parent == nullptr || name == nullptr) {
    return nullptr;
  }
  const circmetrics::RegistrationLock lock;
  return static_cast<Namespace*>(parent)->find_or_make_namespace(name);
} catch (const std::bad_alloc&) {
  return nullptr;
}

void* stats_register(void* ns, const char* name, int type) try {
  if (ns == nullptr || name == nullptr) {
    return nullptr;
  }
  const circmetrics::RegistrationLock lock;
  return static_cast<Namespace*>(ns)->find_or_make_metric(name, type);
} catch (const std::bad_alloc&) {
  return nullptr;
}

int stats_observe(void* metric, int type, const void* address) {
  auto* gauge = metric_as<Gauge>(metric);
  if (gauge == nullptr || gauge->type() != type) {
    return kFailed;
  }
  gauge->observe(address);
  return kOk;
}

// When the function fits into one cache line, a call takes a cycle less.
__attribute__((aligned(64))) int stats_add64(void* metric, int64_t amount) {
  auto* counter = metric_as<Counter>(metric);
  if (counter == nullptr) {
    return kFailed;
  }
  counter->add(amount);
  return kOk;
}

int stats_set_hist(void* metric, double value, uint32_t count) {
  auto* histogram = metric_as<Histogram>(metric);
  return status(histogram != nullptr && histogram->insert(value, count));
}

int stats_set_hist_intscale(void* metric, int64_t value, int32_t scale, uint32_t count) {
  auto* histogram = metric_as<Histogram>(metric);
  return status(histogram != nullptr && histogram->insert_scaled(value, scale, count));
}

int stats_recorder_output_json(void* recorder, int version, int flags, circmetrics_write write,
                               void* closure) try {
  if (recorder == nullptr || version != kLayoutVersion || flags != 0 || write == nullptr) {
    return kFailed;
  }
  // Rendered first, so that no lock is held while the caller writes.
  const std::string text = static_cast<Recorder*>(recorder)->to_json();
  return status(write_in_pieces(text, write, closure));
} catch (const std::bad_alloc&) {
  return kFailed;
}
