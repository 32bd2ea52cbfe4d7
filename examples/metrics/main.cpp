// metrics: threads work through jobs and update one metric of each kind. Then the
// program prints its statistics report.
//
//   metrics REPORT_FILE [THREADS]
#include <quorvane/module.h>
#include <quorvane/stats.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr unsigned kJobsOfAThread = 1000;

// Its path is where the report shows the metrics.
const quorvane::Module g_module("examples/metrics");

// The gauges read these at every report, so they must not move.
std::int64_t g_running = 0;
double g_load = 0;

struct Metrics {
  qv_stats_handle_t jobs = qv_stats_create_counter(g_module.get(), "jobs");
  qv_stats_handle_t bytes = qv_stats_create_histogram(g_module.get(), "bytes");
  qv_stats_handle_t running = qv_stats_create_gauge_int64(g_module.get(), "running", &g_running);
  qv_stats_handle_t load = qv_stats_create_gauge_double(g_module.get(), "load", &g_load);
};

// The update functions test the handles, so this also works with statistics off.
void work(const Metrics& metrics) {
  std::atomic_ref(g_running).fetch_add(1);
  for (unsigned job = 1; job <= kJobsOfAThread; ++job) {
    qv_stats_hist_insert(metrics.bytes, job, 1);
    qv_stats_counter_inc(metrics.jobs, 1);
  }
}

void work_in_threads(const Metrics& metrics, unsigned count) {
  std::vector<std::thread> threads;
  for (unsigned index = 0; index < count; ++index) {
    threads.emplace_back(work, metrics);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// Prints one member per line, in the order of the report, except for the hundreds of buckets. False
// when there is no report.
bool print_last_report(const char* path) try {
  std::ifstream file(path);
  std::string last;
  for (std::string line; std::getline(file, line);) {
    last = line;
  }
  auto report = nlohmann::ordered_json::parse(last);
  report["log"]["examples"]["metrics"]["bytes"].erase("buckets");
  std::puts(report.dump(2).c_str());
  return true;
} catch (const nlohmann::json::exception&) {
  std::fprintf(stderr, "metrics: no report in %s\n", path);
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  const unsigned long threads = argc == 3 ? std::strtoul(argv[2], nullptr, 10) : 2;
  if (argc < 2 || argc > 3 || threads == 0 || threads > 64) {
    std::fprintf(stderr, "usage: metrics REPORT_FILE [THREADS], 1 to 64 threads\n");
    return 2;
  }
  // Usually the environment decides about statistics; this program needs them.
  setenv("QV_STATS_REPORT_FILE", argv[1], 1);
  const Metrics metrics;
  auto* const statistics = quorvane::stats::get_singleton_module();
  if (statistics == nullptr) {
    std::fprintf(stderr, "metrics: no statistics, the log says why\n");
    return 1;
  }
  work_in_threads(metrics, static_cast<unsigned>(threads));
  g_load = static_cast<double>(threads) / 64;
  // Programs usually rely on QV_STATS_REPORT_PERIOD and the report at exit instead.
  statistics->report_now();
  return print_last_report(argv[1]) ? 0 : 1;
}
