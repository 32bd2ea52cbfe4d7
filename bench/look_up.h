// Look-ups in a cache of many entries, and in its peers.
#ifndef BENCH_LOOK_UP_H_
#define BENCH_LOOK_UP_H_

#include <benchmark/benchmark.h>
#include <quorvane/cache.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "store_fixture.h"

namespace bench {

// In the same order in every run.
inline std::vector<Key> shuffled(std::vector<Key> keys) {
  std::shuffle(keys.begin(), keys.end(), std::mt19937_64(7));
  return keys;
}

inline const auto* get(quorvane::cache::Cache& cache, const Key& key) {
  return cache.get_value(quorvane::util::RoBuffer::view(key.data(), kKeySize));
}

// A cache of this store, after enough look-ups to pay for its index. Never destroyed.
inline quorvane::cache::Cache& indexed_cache(const std::string& name,
                                             std::unique_ptr<quorvane::cache::Store> store,
                                             const std::vector<Key>& keys) {
  auto* const cache = new quorvane::cache::Cache(name, std::move(store), false);
  for (std::size_t at = 0; at < keys.size() / 8; ++at) {
    get(*cache, keys[at]);
  }
  return *cache;
}

// Looks up one key after another.
template <typename LookUp>
void look_up_each(benchmark::State& state, const std::vector<Key>& keys, LookUp look_up) {
  std::size_t at = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(look_up(keys[at]));
    at = at + 1 == keys.size() ? 0 : at + 1;
  }
}

}  // namespace bench

#endif  // BENCH_LOOK_UP_H_
