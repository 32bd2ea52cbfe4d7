// What the hashers add to the functions they wrap: a push and a digest, compared with one
// call of the function, for 64 bytes and for 1 MiB.
#include <benchmark/benchmark.h>
#include <blake2.h>
#include <farmhash.h>
#include <quorvane/hasher.h>

#include <cstdint>
#include <vector>

#ifdef QV_FARMHASH_USE_CITY
namespace farmhashcc {
util::uint128_t CityHash128WithSeed(const char* s, size_t len, util::uint128_t seed);
}
#endif

namespace {

std::vector<std::uint8_t> input(const benchmark::State& state) {
  return std::vector<std::uint8_t>(static_cast<std::size_t>(state.range(0)), 'q');
}

template <typename Hasher>
void hasher(benchmark::State& state) {
  const auto bytes = input(state);
  Hasher hasher;
  for (auto _ : state) {
    hasher.push(bytes.data(), bytes.size());
    benchmark::DoNotOptimize(hasher.calculate_and_reset());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void blake2_function(benchmark::State& state) {
  const auto bytes = input(state);
  std::uint8_t digest[32];
  for (auto _ : state) {
    blake2b(digest, bytes.data(), nullptr, sizeof(digest), bytes.size(), 0);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void farm_hash_function(benchmark::State& state) {
  const auto bytes = input(state);
  const auto* const text = reinterpret_cast<const char*>(bytes.data());
  for (auto _ : state) {
#ifdef QV_FARMHASH_USE_CITY
    auto digest = farmhashcc::CityHash128WithSeed(text, bytes.size(), {0, 0});
#else
    auto digest = util::Hash128WithSeed(text, bytes.size(), {0, 0});
#endif
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void sizes(benchmark::internal::Benchmark* bench) { bench->Arg(64)->Arg(1 << 20); }

BENCHMARK(blake2_function)->Apply(sizes);
BENCHMARK_TEMPLATE(hasher, quorvane::hash::strong::Blake2Hasher)->Apply(sizes);
BENCHMARK(farm_hash_function)->Apply(sizes);
BENCHMARK_TEMPLATE(hasher, quorvane::hash::fast::FarmHash128Hasher)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
