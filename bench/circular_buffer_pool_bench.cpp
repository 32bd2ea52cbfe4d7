// A pool lends 256 bytes and takes them back. Its peer locks and unlocks a mutex twice
// and counts, the least that any such pool has to do.
#include <benchmark/benchmark.h>
#include <quorvane/circular_buffer_pool.h>
#include <unistd.h>

#include <cstdint>
#include <mutex>
#include <thread>

namespace {

constexpr unsigned long kSize = 256;

using quorvane::util::CircularBufferPool;

unsigned long region() { return 16 * static_cast<unsigned long>(getpagesize()); }

void mutex_and_counters(benchmark::State& state) {
  std::mutex mutex;
  std::uint64_t head = 0;
  std::uint64_t tail = 0;
  std::uint64_t length = region();
  benchmark::DoNotOptimize(length);
  for (auto _ : state) {
    {
      const std::lock_guard<std::mutex> lock(mutex);
      std::uint64_t position = head % length;
      benchmark::DoNotOptimize(position);
      head += kSize;
    }
    {
      const std::lock_guard<std::mutex> lock(mutex);
      std::uint64_t position = tail % length;
      benchmark::DoNotOptimize(position);
      tail += kSize;
    }
    benchmark::DoNotOptimize(head);
    benchmark::DoNotOptimize(tail);
  }
}

void allocate_and_free(benchmark::State& state) {
  CircularBufferPool pool(region());
  for (auto _ : state) {
    auto buffer = pool.allocate(kSize, nullptr);
    buffer.set_pool_release_is_free(true);
    benchmark::DoNotOptimize(buffer.get_buffer());
  }
}

void allocate_and_deallocate(benchmark::State& state) {
  CircularBufferPool pool(region());
  for (auto _ : state) {
    auto buffer = pool.allocate(kSize, nullptr);
    benchmark::DoNotOptimize(buffer.get_buffer());
  }
}

BENCHMARK(mutex_and_counters);
BENCHMARK(allocate_and_free);
BENCHMARK(allocate_and_deallocate);

}  // namespace

int main(int argc, char** argv) {
  // A mutex costs less in a process with one thread. A second thread waits here, so that
  // everything is measured as programs use it.
  std::mutex until_end;
  until_end.lock();
  std::thread second([&until_end] { const std::lock_guard<std::mutex> lock(until_end); });
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  until_end.unlock();
  second.join();
}
