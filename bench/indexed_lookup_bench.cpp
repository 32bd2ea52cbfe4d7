// Look-ups in an indexed store of 1 M entries: hits of keys that the process has looked up
// before, misses, and first hits. Compared with our other stores, with LMDB and with a
// constant database.
#include <memory>

#include "cdb_store.h"
#include "lmdb_store.h"
#include "own_store.h"
#include "ratio.h"

namespace {

using Basic = bench::BasicCache;
using Lazy = bench::LazyCache;
using Indexed = bench::IndexedCache;
using bench::CdbStore;
using bench::LmdbStore;

constexpr std::uint64_t kEntries = 1'000'000;

std::vector<bench::Key> make_keys(std::uint64_t from) {
  std::vector<bench::Key> keys;
  for (std::uint64_t number = from; number < from + kEntries; ++number) {
    keys.push_back(bench::numbered_key(number));
  }
  return bench::shuffled(std::move(keys));
}

const std::vector<bench::Key>& present() {
  static const auto keys = make_keys(0);
  return keys;
}

const std::vector<bench::Key>& absent() {
  static const auto keys = make_keys(kEntries);
  return keys;
}

template <typename Store>
std::unique_ptr<Store> opened() {
  static const bool written = [] {
    bench::root();
    Store::write("looked_up", kEntries);
    return true;
  }();
  return written ? std::make_unique<Store>("looked_up") : nullptr;
}

// A store in which all keys have been looked up.
template <typename Store>
Store& known() {
  static Store& store = []() -> Store& {
    Store& made = *opened<Store>().release();
    for (const bench::Key& key : present()) {
      made.find(key);
    }
    return made;
  }();
  return store;
}

template <typename Store>
void BM_Hit(benchmark::State& state) {
  Store& store = known<Store>();
  bench::look_up_each(state, present(),
                      [&store](const bench::Key& key) { return store.find(key); });
}

template <typename Store>
void BM_Miss(benchmark::State& state) {
  Store& store = known<Store>();
  bench::look_up_each(state, absent(), [&store](const bench::Key& key) { return store.find(key); });
}

// Each key once, in a store that has just been opened.
template <typename Store>
void BM_FirstHit(benchmark::State& state) {
  const auto store = opened<Store>();
  bench::look_up_each(state, present(),
                      [&store](const bench::Key& key) { return store->find(key); });
}

BENCHMARK_TEMPLATE(BM_Hit, Indexed)->Repetitions(5);
BENCHMARK_TEMPLATE(BM_Hit, Basic)->Repetitions(5);
BENCHMARK_TEMPLATE(BM_Hit, Lazy)->Repetitions(5);
BENCHMARK_TEMPLATE(BM_Hit, LmdbStore)->Repetitions(5);
BENCHMARK_TEMPLATE(BM_Hit, CdbStore)->Repetitions(5);
BENCHMARK_TEMPLATE(BM_Miss, Indexed)->Repetitions(5);
BENCHMARK_TEMPLATE(BM_Miss, Basic)->Repetitions(5);
BENCHMARK_TEMPLATE(BM_Miss, Lazy)->Repetitions(5);
BENCHMARK_TEMPLATE(BM_Miss, LmdbStore)->Repetitions(5);
BENCHMARK_TEMPLATE(BM_Miss, CdbStore)->Repetitions(5);
BENCHMARK_TEMPLATE(BM_FirstHit, Indexed)->Iterations(kEntries)->Repetitions(5);
BENCHMARK_TEMPLATE(BM_FirstHit, LmdbStore)->Iterations(kEntries)->Repetitions(5);
BENCHMARK_TEMPLATE(BM_FirstHit, CdbStore)->Iterations(kEntries)->Repetitions(5);

}  // namespace

int main(int argc, char** argv) {
  setenv("QV_LOG_FILE", "/dev/null", 0);
  return bench::run(argc, argv,
                    {{"hit / basic", "BM_Hit<Indexed>", "BM_Hit<Basic>", 1.0},
                     {"hit / lazy", "BM_Hit<Indexed>", "BM_Hit<Lazy>", 0},
                     {"hit / LMDB", "BM_Hit<Indexed>", "BM_Hit<LmdbStore>", 0.2},
                     {"hit / cdb", "BM_Hit<Indexed>", "BM_Hit<CdbStore>", 0},
                     {"miss / basic", "BM_Miss<Indexed>", "BM_Miss<Basic>", 1.15},
                     {"miss / LMDB", "BM_Miss<Indexed>", "BM_Miss<LmdbStore>", 0},
                     {"miss / cdb", "BM_Miss<Indexed>", "BM_Miss<CdbStore>", 0},
                     {"first hit / LMDB", "BM_FirstHit<Indexed>", "BM_FirstHit<LmdbStore>", 1.25},
                     {"first hit / cdb", "BM_FirstHit<Indexed>", "BM_FirstHit<CdbStore>", 0}});
}
