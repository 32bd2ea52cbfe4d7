// What an update through the library adds to the recorder's own call.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <quorvane/module.h>
#include <quorvane/stats.h>

#include <cstdint>
#include <cstdlib>

namespace {

using Add = int (*)(void* metric, std::int64_t amount);
using SetHist = int (*)(void* metric, double value, std::uint32_t count);

void* module() {
  static const quorvane::Module bench("bench/stats");
  return bench.get();
}

// A function of the recorder that the library has loaded.
template <typename Function>
Function recorders(const char* symbol) {
  void* library = dlopen("libcircmetrics.so", RTLD_LAZY | RTLD_NOLOAD);
  return reinterpret_cast<Function>(dlsym(library, symbol));
}

void* metric(qv_stats_handle_t handle) { return reinterpret_cast<void*>(handle); }

void RecorderAdd(benchmark::State& state) {
  const qv_stats_handle_t counter = qv_stats_create_counter(module(), "counter");
  const auto add = recorders<Add>("stats_add64");
  for (auto _ : state) {
    benchmark::DoNotOptimize(add(metric(counter), 1));
  }
}

void LibraryAdd(benchmark::State& state) {
  const qv_stats_handle_t counter = qv_stats_create_counter(module(), "counter");
  for (auto _ : state) {
    benchmark::DoNotOptimize(qv_stats_counter_inc_do(counter, 1));
  }
}

void LibraryAddToAnInvalidHandle(benchmark::State& state) {
  qv_stats_handle_t off = QV_STATS_INVALID_HANDLE;
  for (auto _ : state) {
    benchmark::DoNotOptimize(off);
    qv_stats_counter_inc(off, 1);
  }
}

void RecorderHistogram(benchmark::State& state) {
  const qv_stats_handle_t histogram = qv_stats_create_histogram(module(), "histogram");
  const auto set_hist = recorders<SetHist>("stats_set_hist");
  double value = 1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(set_hist(metric(histogram), value, 1));
    value = value < 1e6 ? value * 1.01 : 1;
  }
}

void LibraryHistogram(benchmark::State& state) {
  const qv_stats_handle_t histogram = qv_stats_create_histogram(module(), "histogram");
  double value = 1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(qv_stats_hist_insert_do(histogram, value, 1));
    value = value < 1e6 ? value * 1.01 : 1;
  }
}

// Creating a metric that exists already.
void LibraryCreateAgain(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(qv_stats_create_counter(module(), "counter"));
  }
}

BENCHMARK(RecorderAdd)->ThreadRange(1, 4);
BENCHMARK(LibraryAdd)->ThreadRange(1, 4);
BENCHMARK(LibraryAddToAnInvalidHandle);
BENCHMARK(RecorderHistogram);
BENCHMARK(LibraryHistogram);
BENCHMARK(LibraryCreateAgain);

}  // namespace

int main(int argc, char** argv) {
  setenv("QV_STATS_REPORT_FILE", "/dev/null", 1);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
