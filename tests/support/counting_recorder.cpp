// A metrics recorder for tests. It adds up the counters, and reports a JSON list of
// "path/type=amount".
#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

namespace {

struct Metric {
  std::string path;
  std::int64_t amount;
};

struct Recorder {
  std::mutex mutex;
  std::deque<std::string> namespaces;
  std::deque<Metric> metrics;
};

Recorder& recorder() {
  static Recorder& the_recorder = *new Recorder;
  return the_recorder;
}

using WriteCallback = ssize_t (*)(void* closure, const void* bytes, std::size_t length);

}  // namespace

extern "C" {

void* stats_recorder_alloc() { return &recorder(); }

void* stats_recorder_global_ns(void*) {
  static std::string root;
  return &root;
}

void* stats_register_ns(void*, void* parent, const char* name) {
  const std::lock_guard<std::mutex> lock(recorder().mutex);
  return &recorder().namespaces.emplace_back(*static_cast<std::string*>(parent) + name + "/");
}

void* stats_register(void* ns, const char* name, int type) {
  const std::lock_guard<std::mutex> lock(recorder().mutex);
  const std::string path = *static_cast<std::string*>(ns) + name + "/" + std::to_string(type);
  return &recorder().metrics.emplace_back(Metric{path, 0});
}

int stats_observe(void*, int, const void*) { return 0; }

int stats_add64(void* metric, std::int64_t amount) {
  const std::lock_guard<std::mutex> lock(recorder().mutex);
  static_cast<Metric*>(metric)->amount += amount;
  return 0;
}

int stats_set_hist(void*, double, std::uint32_t) { return 0; }
int stats_set_hist_intscale(void*, std::int64_t, std::int32_t, std::uint32_t) { return 0; }

int stats_recorder_output_json(void*, int, int, WriteCallback callback, void* closure) {
  const std::lock_guard<std::mutex> lock(recorder().mutex);
  std::string text = "[";
  for (const Metric& metric : recorder().metrics) {
    text +=
        (text.size() > 1 ? ",\"" : "\"") + metric.path + "=" + std::to_string(metric.amount) + "\"";
  }
  text += "]";
  return callback(closure, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : -1;
}

}  // extern "C"
