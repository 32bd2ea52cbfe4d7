// A clean of an indexed store whose size is bounded: how long its process holds the store lock,
// compared with all that the append takes which cleans.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "now.h"
#include "own_store.h"
#include "ratio.h"
#include "timed_lock.h"

namespace {

using bench::now;
using bench::TimedLock;
using quorvane::cache::CleanupController;
using quorvane::cache::EntryMap;
using quorvane::cache::IndexedStore;

constexpr std::uint64_t kBatch = 1000;

void check(bool holds) {
  if (!holds) {
    std::abort();
  }
}

struct Times {
  double whole = HUGE_VAL;  // in us, of the append that cleans
  double held = HUGE_VAL;
};

// Appends until the store has cleaned itself `cleans` times.
Times clean(std::uint64_t limit, int cleans) {
  CleanupController controller(limit);
  const std::string name = "clean_" + std::to_string(limit);
  const auto lock = std::make_shared<TimedLock>(name);
  IndexedStore store(name, lock, &controller);
  EntryMap none;
  check(store.try_load(none));
  Times times;
  for (std::uint64_t from = 0; cleans > 0; from += kBatch) {
    const EntryMap batch = bench::numbered_entries(from, from + kBatch);
    const std::uint64_t before = store.get_usage();
    lock->take_held();
    const double begin = now();
    check(store.try_store_diff(batch));
    const double whole = now() - begin;
    const double held = lock->take_held();
    if (store.get_usage() < before) {
      times.whole = std::min(times.whole, whole);
      times.held = std::min(times.held, held);
      --cleans;
    }
  }
  return times;
}

}  // namespace

// Usage: indexed_clean_bench [CLEANS]
int main(int argc, char** argv) {
  setenv("QV_LOG_FILE", "/dev/null", 1);
  bench::root();
  const int cleans = argc > 1 ? std::atoi(argv[1]) : 4;
  std::printf("%-20s %20s %20s\n", "threshold", "whole append, ms", "lock held, ms");
  double ratio = 0;
  for (const std::uint64_t megabytes : {64, 512}) {
    const Times times = clean(megabytes << 20, cleans);
    std::printf("%-4lu MB %33.1f %20.1f\n", megabytes, times.whole / 1000, times.held / 1000);
    ratio = times.held / times.whole;
  }
  bench::print_ratio_head();
  bench::print_ratio("clean at 512 MB: lock held / all of it", ratio, 0.1);
  return 0;
}
