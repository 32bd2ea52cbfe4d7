// `contains` among 1000 ids, against a vectorised scan of the same array that
// looks for an equal id.
#include <benchmark/benchmark.h>
#include <quorvane/pidset.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ratio.h"

namespace {

constexpr std::int32_t kIds = 1000;

// In a file without a name.
qv_pidset_t* make_set() {
  char path[] = "/tmp/qvbench.XXXXXX";
  const int fd = mkstemp(path);
  unlink(path);
  qv_pidset_t* const set = qv_pidset_open_fd(fd);
  for (std::int32_t id = 1; id <= kIds; ++id) {
    qv_pidset_add(set, 3 * id);
  }
  return set;
}

qv_pidset_t* ids() {
  static qv_pidset_t* const set = make_set();
  return set;
}

// Asks for the first, the middle, the last id or one that is missing.
std::int32_t asked_for(const benchmark::State& state) {
  return static_cast<std::int32_t>(state.range(0));
}

void contains(benchmark::State& state) {
  qv_pidset_t* const set = ids();
  std::int32_t id = asked_for(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(id);
    benchmark::DoNotOptimize(qv_pidset_contains(set, id));
  }
}

using FourIds = std::int32_t __attribute__((vector_size(16)));
using TwoWords = std::int64_t __attribute__((vector_size(16)));

FourIds load(const std::int32_t* ids) {
  FourIds four;
  std::memcpy(&four, ids, sizeof(four));
  return four;
}

// 16 ids at a time.
bool scan(const std::int32_t* list, std::size_t count, std::int32_t id) {
  const FourIds wanted = {id, id, id, id};
  std::size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const auto equal = reinterpret_cast<TwoWords>(
        ((load(list + i) == wanted) | (load(list + i + 4) == wanted)) |
        ((load(list + i + 8) == wanted) | (load(list + i + 12) == wanted)));
    if ((equal[0] | equal[1]) != 0) {
      return true;
    }
  }
  for (; i < count; ++i) {
    if (list[i] == id) {
      return true;
    }
  }
  return false;
}

void vectorised_scan(benchmark::State& state) {
  const std::int32_t* const list = qv_pidset_pidlist(ids());
  const std::size_t count = *qv_pidset_count_ptr(ids());
  std::int32_t id = asked_for(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(id);
    benchmark::DoNotOptimize(scan(list, count, id));
  }
}

void places(benchmark::internal::Benchmark* benchmark) {
  benchmark->Repetitions(9)->MinTime(0.05);
  benchmark->Arg(3)->Arg(3 * kIds / 2)->Arg(3 * kIds)->Arg(3 * kIds - 1);
}

BENCHMARK(contains)->Apply(places);
BENCHMARK(vectorised_scan)->Apply(places);

}  // namespace

int main(int argc, char** argv) {
  return bench::run(
      argc, argv,
      {{"contains / vectorised scan, first id", "contains/3", "vectorised_scan/3", 0},
       {"contains / vectorised scan, middle id", "contains/1500", "vectorised_scan/1500", 1.5},
       {"contains / vectorised scan, last id", "contains/3000", "vectorised_scan/3000", 1.5},
       {"contains / vectorised scan, missing id", "contains/2999", "vectorised_scan/2999", 1.5}});
}
