// A lazy store compared with a basic one that has the same entries: loading, looking up, and what
// mapping all values costs when they are in the page cache and when they aren't.
#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include "look_up.h"
#include "ratio.h"
#include "store_fixture.h"

namespace {

using namespace quorvane;
using cache::BasicStore;
using cache::LazyLookupStore;

constexpr std::size_t kEntries = 1'000'000;

const std::vector<bench::Key>& keys() {
  static const auto all = bench::make_keys(kEntries);
  return all;
}

std::string store_name(std::int64_t batches) { return "store_" + std::to_string(batches); }

std::string file_of(const BasicStore*, std::int64_t batches) {
  return bench::root() + "/" + store_name(batches);
}
std::string file_of(const LazyLookupStore*, std::int64_t batches) {
  return bench::root() + "/" + LazyLookupStore::get_val_fname(store_name(batches));
}

// The file with the values.
template <typename Store>
std::string prepared(std::int64_t batches) {
  const std::string path = file_of(static_cast<Store*>(nullptr), batches);
  if (!std::filesystem::exists(path)) {
    bench::write_store<Store>(store_name(batches), keys(), static_cast<std::size_t>(batches));
  }
  return path;
}

// A process loads a cache once, into memory that it has yet to get from the kernel; so does
// each load here. The time includes the store's destructor, which unmaps a lazy store's
// values, but not the map's.
template <typename Store>
void BM_Load(benchmark::State& state) {
  prepared<Store>(state.range(0));
  const std::string name = store_name(state.range(0));
  for (auto _ : state) {
    Store store(name, std::make_shared<cache::StoreFLock>(name), nullptr);
    cache::EntryMap map;
    if (!store.try_load(map) || map.size() != kEntries) {
      state.SkipWithError("load failed");
    }
    state.PauseTiming();
    map.clear();
    malloc_trim(0);
    state.ResumeTiming();
  }
}

const std::vector<bench::Key>& shuffled() {
  static const auto all = bench::shuffled(keys());
  return all;
}

template <typename Store>
void BM_Hit(benchmark::State& state) {
  static cache::Cache& loaded = []() -> cache::Cache& {
    prepared<Store>(1);
    const std::string name = store_name(1);
    return bench::indexed_cache(
        name, std::make_unique<Store>(name, std::make_shared<cache::StoreFLock>(name), nullptr),
        shuffled());
  }();
  bench::look_up_each(state, shuffled(),
                      [](const bench::Key& key) { return bench::get(loaded, key); });
}

// Drops a file's pages from the page cache.
void forget(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 || fsync(fd) != 0 || posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED) != 0) {
    std::abort();
  }
  close(fd);
}

// Maps the values as a load does.
void BM_MapValues(benchmark::State& state) {
  // Not the store of the look-ups: its mapping would keep the pages in the cache.
  const std::string path = prepared<LazyLookupStore>(100);
  const bool is_cold = state.range(0) == 1;
  for (auto _ : state) {
    state.PauseTiming();
    if (is_cold) {
      forget(path);
    }
    state.ResumeTiming();
    util::MMappedFile file;
    file.open(path, O_RDONLY, 0, PROT_READ, MAP_PRIVATE | MAP_POPULATE);
    if (!file.is_open()) {
      state.SkipWithError("not mapped");
    }
    state.PauseTiming();
    file.close();
    state.ResumeTiming();
  }
}

BENCHMARK_TEMPLATE(BM_Load, LazyLookupStore)
    ->Arg(1)
    ->Arg(100)
    ->Repetitions(5)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Load, BasicStore)
    ->Arg(1)
    ->Arg(100)
    ->Repetitions(5)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Hit, LazyLookupStore)->Repetitions(5);
BENCHMARK_TEMPLATE(BM_Hit, BasicStore)->Repetitions(5);
BENCHMARK(BM_MapValues)
    ->ArgName("cold")
    ->Arg(0)
    ->Arg(1)
    ->Repetitions(5)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  bench::root();
  return bench::run(
      argc, argv,
      {{"lazy load 1 M, key order / basic", "BM_Load<LazyLookupStore>/1", "BM_Load<BasicStore>/1",
        0.55},
       {"lazy load 1 M, 100 batches / basic", "BM_Load<LazyLookupStore>/100",
        "BM_Load<BasicStore>/100", 0.55},
       {"lazy hit / basic hit", "BM_Hit<LazyLookupStore>", "BM_Hit<BasicStore>", 1.0},
       {"mapping warm values / lazy load", "BM_MapValues/cold:0", "BM_Load<LazyLookupStore>/1", 0},
       {"mapping cold values / lazy load", "BM_MapValues/cold:1", "BM_Load<LazyLookupStore>/1",
        0}});
}
