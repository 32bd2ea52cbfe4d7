// What an update of a counter and of a histogram costs, compared with prometheus-cpp. Also what a
// report, and a fork that keeps what the report of the child needs, cost alone.
//
// The peer's histogram counts between fixed bounds; here they give the recorder's accuracy
// of 1 % over six decades. The peer's summary offers percentiles for any values, as the
// recorder does, by merging samples under a lock.
#include <benchmark/benchmark.h>
#include <circmetrics.h>
#include <prometheus/counter.h>
#include <prometheus/histogram.h>
#include <prometheus/summary.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <random>
#include <string>

#include "ratio.h"

namespace {

constexpr double kSmallest = 1;
constexpr double kLargest = 1e6;

void* new_metric(int type) {
  void* recorder = stats_recorder_alloc();
  return stats_register(stats_recorder_global_ns(recorder), "metric", type);
}

void OurCounter(benchmark::State& state) {
  static void* const counter = new_metric(CIRCMETRICS_COUNTER);
  for (auto _ : state) {
    stats_add64(counter, 1);
  }
}

void TheirCounter(benchmark::State& state) {
  static prometheus::Counter counter;
  for (auto _ : state) {
    counter.Increment();
  }
}

// Like latencies: spread evenly over the decades. Each thread has its own.
class Samples {
 public:
  explicit Samples(int thread) {
    std::mt19937_64 random(static_cast<unsigned>(thread) + 1);
    std::uniform_real_distribution<double> exponent(std::log(kSmallest), std::log(kLargest));
    for (double& value : values_) {
      value = std::exp(exponent(random));
    }
  }

  double next() { return values_[index_++ % values_.size()]; }

 private:
  std::array<double, 4096> values_;
  std::size_t index_ = 0;
};

void OurHistogram(benchmark::State& state) {
  static void* const histogram = new_metric(CIRCMETRICS_HISTOGRAM);
  Samples samples(state.thread_index());
  for (auto _ : state) {
    stats_set_hist(histogram, samples.next(), 1);
  }
}

prometheus::Histogram::BucketBoundaries bounds_of_one_percent() {
  prometheus::Histogram::BucketBoundaries bounds;
  for (double bound = kSmallest; bound < kLargest; bound *= 1.02) {
    bounds.push_back(bound);
  }
  return bounds;
}

void TheirHistogram(benchmark::State& state) {
  static prometheus::Histogram histogram(bounds_of_one_percent());
  Samples samples(state.thread_index());
  for (auto _ : state) {
    histogram.Observe(samples.next());
  }
}

void TheirSummary(benchmark::State& state) {
  static prometheus::Summary summary({{0.5, 0.01}, {0.9, 0.01}, {0.99, 0.001}, {0.999, 0.0001}});
  Samples samples(state.thread_index());
  for (auto _ : state) {
    summary.Observe(samples.next());
  }
}

// A recorder that has been in use for a while: 100 counters and 20 histograms.
struct UsedRecorder {
  void* recorder = stats_recorder_alloc();

  UsedRecorder() {
    void* root = stats_recorder_global_ns(recorder);
    for (int index = 0; index < 100; ++index) {
      const std::string name = "counter " + std::to_string(index);
      stats_add64(stats_register(root, name.c_str(), CIRCMETRICS_COUNTER), 123456);
    }
    std::mt19937_64 random(1);
    std::lognormal_distribution<double> latency(std::log(200), 0.5);
    for (int index = 0; index < 20; ++index) {
      const std::string name = "histogram " + std::to_string(index);
      void* const histogram = stats_register(root, name.c_str(), CIRCMETRICS_HISTOGRAM);
      for (int sample = 0; sample < 100000; ++sample) {
        stats_set_hist(histogram, latency(random), 1);
      }
    }
  }
};

void Report(benchmark::State& state) {
  static const UsedRecorder used;
  std::size_t size = 0;
  const auto count = [](void* closure, const void*, std::size_t length) {
    *static_cast<std::size_t*>(closure) += length;
    return static_cast<ssize_t>(length);
  };
  for (auto _ : state) {
    size = 0;
    stats_recorder_output_json(used.recorder, 1, 0, count, &size);
  }
  state.counters["bytes"] = static_cast<double>(size);
}

// The processor time of a child until it comes back from the fork.
template <typename Fork>
void fork_and_wait(benchmark::State& state, Fork fork_child) {
  static const UsedRecorder used;
  auto* const taken = static_cast<timespec*>(
      mmap(nullptr, sizeof(timespec), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  for (auto _ : state) {
    const auto child = static_cast<pid_t>(fork_child());
    if (child == 0) {
      clock_gettime(CLOCK_PROCESS_CPUTIME_ID, taken);
      _exit(0);
    }
    waitpid(child, nullptr, 0);
    state.SetIterationTime(static_cast<double>(taken->tv_nsec) * 1e-9);
  }
  munmap(taken, sizeof(timespec));
}

void ForkThatKeepsValues(benchmark::State& state) {
  fork_and_wait(state, [] { return fork(); });
}

// Without fork handlers.
void RawClone(benchmark::State& state) {
  fork_and_wait(state, [] { return syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0); });
}

BENCHMARK(OurCounter)->Threads(1)->Threads(4)->Repetitions(10);
BENCHMARK(TheirCounter)->Threads(1)->Threads(4)->Repetitions(10);
BENCHMARK(OurHistogram)->Threads(1)->Threads(4)->Repetitions(10);
BENCHMARK(TheirHistogram)->Threads(1)->Threads(4)->Repetitions(10);
BENCHMARK(TheirSummary)->Threads(1)->Threads(4)->Repetitions(10);
BENCHMARK(Report)->Repetitions(10);
BENCHMARK(ForkThatKeepsValues)->UseManualTime()->Repetitions(10);
BENCHMARK(RawClone)->UseManualTime()->Repetitions(10);

}  // namespace

int main(int argc, char** argv) {
  return bench::run(
      argc, argv,
      {{"counter, 1 thread", "OurCounter/threads:1", "TheirCounter/threads:1", 0.6},
       {"counter, 4 threads", "OurCounter/threads:4", "TheirCounter/threads:4", 0.6},
       {"histogram, 1 thread", "OurHistogram/threads:1", "TheirHistogram/threads:1", 0.6},
       {"histogram, 4 threads", "OurHistogram/threads:4", "TheirHistogram/threads:4", 0.6},
       {"histogram to summary, 1 thread", "OurHistogram/threads:1", "TheirSummary/threads:1", 0.6},
       {"histogram to summary, 4 threads", "OurHistogram/threads:4", "TheirSummary/threads:4",
        0.6}});
}
