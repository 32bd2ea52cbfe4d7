// Compares finding an id among 1000 with a vectorised scan of the same array, and adding
// and removing an id with a memmove at its known position under the same locks.
#include <benchmark/benchmark.h>
#include <quorvane/pidset.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ratio.h"

namespace {

constexpr std::int32_t kIds = 1000;

int file_without_a_name() {
  char path[] = "/tmp/qvbench.XXXXXX";
  const int fd = mkstemp(path);
  unlink(path);
  return fd;
}

qv_pidset_t* make_set() {
  qv_pidset_t* const set = qv_pidset_open_fd(file_without_a_name());
  for (std::int32_t id = 1; id <= kIds; ++id) {
    qv_pidset_add(set, 3 * id);
  }
  return set;
}

qv_pidset_t* ids() {
  static qv_pidset_t* const set = make_set();
  return set;
}

// The id of this benchmark: the first, the middle or the last one, or a missing one.
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

void add_and_remove(benchmark::State& state) {
  qv_pidset_t* const set = ids();
  const std::int32_t id = asked_for(state);
  for (auto _ : state) {
    qv_pidset_add(set, id);
    qv_pidset_remove(set, id);
  }
}

void memmove_up_and_down(benchmark::State& state) {
  const int fd = file_without_a_name();
  static std::int32_t list[kIds + 1];
  std::memcpy(list, qv_pidset_pidlist(ids()), kIds * sizeof(*list));
  const std::int32_t id = asked_for(state);
  const auto place = static_cast<std::size_t>(id / 3);
  for (auto _ : state) {
    flock(fd, LOCK_EX);
    std::memmove(list + place + 1, list + place, (kIds - place) * sizeof(*list));
    list[place] = id;
    benchmark::ClobberMemory();
    flock(fd, LOCK_UN);
    flock(fd, LOCK_EX);
    std::memmove(list + place, list + place + 1, (kIds - place) * sizeof(*list));
    benchmark::ClobberMemory();
    flock(fd, LOCK_UN);
  }
  close(fd);
}

void new_places(benchmark::internal::Benchmark* benchmark) {
  benchmark->Repetitions(9)->MinTime(0.05);
  benchmark->Arg(1)->Arg(3 * kIds / 2 + 1)->Arg(3 * kIds + 1);
}

BENCHMARK(contains)->Apply(places);
BENCHMARK(vectorised_scan)->Apply(places);
BENCHMARK(add_and_remove)->Apply(new_places);
BENCHMARK(memmove_up_and_down)->Apply(new_places);

}  // namespace

int main(int argc, char** argv) {
  return bench::run(
      argc, argv,
      {{"contains / vectorised scan, first id", "contains/3", "vectorised_scan/3", 0},
       {"contains / vectorised scan, middle id", "contains/1500", "vectorised_scan/1500", 1.5},
       {"contains / vectorised scan, last id", "contains/3000", "vectorised_scan/3000", 1.5},
       {"contains / vectorised scan, missing id", "contains/2999", "vectorised_scan/2999", 1.5},
       {"add and remove / with memmove, first id", "add_and_remove/1", "memmove_up_and_down/1", 0},
       {"add and remove / with memmove, middle id", "add_and_remove/1501",
        "memmove_up_and_down/1501", 0},
       {"add and remove / with memmove, last id", "add_and_remove/3001", "memmove_up_and_down/3001",
        0}});
}
