// What a UUID costs on top of 16 random bytes from the kernel, and what the process's
// identity costs on top of the load and the copy that it can't avoid.
#include <quorvane/uuid.h>
#include <sys/random.h>

#include <atomic>
#include <cstdio>

#include "ratio.h"

namespace {

using boost::uuids::uuid;

void kernel_bytes(benchmark::State& state) {
  uuid bytes{};
  for (auto _ : state) {
    benchmark::DoNotOptimize(getrandom(&bytes, sizeof(bytes), 0));
    benchmark::DoNotOptimize(bytes);
  }
}

void generate(benchmark::State& state) {
  for (auto _ : state) {
    uuid made = quorvane::uuid_generate();
    benchmark::DoNotOptimize(made);
  }
}

std::atomic<bool> g_is_set{true};
uuid g_stored = quorvane::uuid_generate();

void load_and_copy(benchmark::State& state) {
  for (auto _ : state) {
    if (g_is_set.load(std::memory_order_acquire)) {
      uuid copy = g_stored;
      benchmark::DoNotOptimize(copy);
    }
  }
}

void identity(benchmark::State& state) {
  for (auto _ : state) {
    uuid mine = quorvane::get_my_uuid();
    benchmark::DoNotOptimize(mine);
  }
}

// The same in a function of its own, as it would be in any library.
__attribute__((noinline)) uuid loaded_copy() {
  return g_is_set.load(std::memory_order_acquire) ? g_stored : uuid{};
}

void called_load_and_copy(benchmark::State& state) {
  for (auto _ : state) {
    uuid copy = loaded_copy();
    benchmark::DoNotOptimize(copy);
  }
}

BENCHMARK(kernel_bytes)->Repetitions(10);
BENCHMARK(generate)->Repetitions(10);
BENCHMARK(load_and_copy)->Repetitions(10);
BENCHMARK(called_load_and_copy)->Repetitions(10);
BENCHMARK(identity)->Repetitions(10);

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv,
                    {{"uuid_generate, to getrandom (and 50 ns)", "generate", "kernel_bytes", 1.1},
                     {"get_my_uuid, to a load and a copy", "identity", "load_and_copy", 3.0},
                     {"get_my_uuid, to a call of them", "identity", "called_load_and_copy", 0}});
}
