// Caches on a server, compared with hiredis' own calls on the same server: single look-ups,
// prefetches and additions. What look-ups cost when the server is away. What an entry costs that
// is on this machine, or that the process has looked up before, compared with an indexed store.
#include <quorvane/cache.h>
#include <quorvane/remote_store.h>
#include <signal.h>

#include <cstdio>
#include <memory>

#include "now.h"
#include "own_store.h"
#include "ratio.h"
#include "redis_server.h"

namespace {

using quorvane::cache::Cache;
using quorvane::util::RoBuffer;

constexpr int kLookUps = 20'000;
constexpr int kBatch = 1000;
constexpr int kBatches = kLookUps / kBatch;
constexpr int kRepetitions = 7;

void check(bool holds) {
  if (!holds) {
    std::abort();
  }
}

std::unique_ptr<Cache> open_cache() {
  return std::make_unique<Cache>("bench", quorvane::cache::make_remote_store("bench"), false);
}

RoBuffer view(const bench::Key& key) { return RoBuffer::view(key.data(), key.size()); }

std::vector<bench::Key> keys_from(std::uint64_t from, std::uint64_t count) {
  std::vector<bench::Key> keys;
  for (std::uint64_t number = from; number < from + count; ++number) {
    keys.push_back(bench::numbered_key(number));
  }
  return keys;
}

void add(Cache& cache, const std::vector<bench::Key>& keys) {
  for (const bench::Key& key : keys) {
    const std::string value = bench::make_value(key);
    check(cache.add_value(RoBuffer::copy(key.data(), key.size()),
                          {RoBuffer::copy(value.data(), value.size())}));
  }
}

// The server, with the entries that are looked up.
bench::RedisServer& server() {
  static bench::RedisServer& started = []() -> bench::RedisServer& {
    static bench::RedisServer made;
    setenv("QV_CACHE_REMOTE", made.address().c_str(), 1);
    for (const char* limit : {"QV_CACHE_REMOTE_TIMEOUT", "QV_CACHE_REMOTE_STORE_TIMEOUT"}) {
      setenv(limit, "60000", 1);  // other programs may delay this one
    }
    const auto cache = open_cache();
    add(*cache, keys_from(0, kLookUps));
    check(cache->flush());
    return made;
  }();
  return started;
}

const std::vector<bench::Key>& present() {
  static const auto keys = keys_from(0, kLookUps);
  return keys;
}

// As this library has it on the server: the same bytes go over the wire.
std::string wire_key(const bench::Key& key) { return std::string("qv1{}\0bench\0", 12) + key; }

// A cache that is connected, but knows none of the entries.
std::unique_ptr<Cache> connected_cache() {
  auto cache = open_cache();
  check(cache->get_value(view("absent")) == nullptr);
  return cache;
}

void BM_Get_Cache(benchmark::State& state) {
  server();
  const auto cache = connected_cache();
  std::size_t at = 0;
  for (auto _ : state) {
    check(cache->get_value(view(present()[at++])) != nullptr);
  }
}

void BM_Get_hiredis(benchmark::State& state) {
  redisContext* const peer = server().peer();
  std::size_t at = 0;
  for (auto _ : state) {
    const std::string key = wire_key(present()[at++]);
    auto* const reply =
        static_cast<redisReply*>(redisCommand(peer, "GET %b", key.data(), key.size()));
    check(reply->type == REDIS_REPLY_STRING);
    freeReplyObject(reply);
  }
}

void BM_Prefetch_Cache(benchmark::State& state) {
  server();
  const auto cache = connected_cache();
  std::vector<RoBuffer> keys;
  for (const bench::Key& key : present()) {
    keys.push_back(view(key));
  }
  std::size_t at = 0;
  for (auto _ : state) {
    cache->prefetch(keys.data() + at, kBatch);
    at += kBatch;
  }
  check(cache->size() == at);
}

void take_replies(redisContext* peer, int type) {
  for (int i = 0; i < kBatch; ++i) {
    void* reply = nullptr;
    check(redisGetReply(peer, &reply) == REDIS_OK);
    check(static_cast<redisReply*>(reply)->type == type);
    freeReplyObject(reply);
  }
}

void BM_Prefetch_hiredis(benchmark::State& state) {
  redisContext* const peer = server().peer();
  std::size_t at = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) {
      const std::string key = wire_key(present()[at++]);
      redisAppendCommand(peer, "GET %b", key.data(), key.size());
    }
    take_replies(peer, REDIS_REPLY_STRING);
  }
}

std::uint64_t next_new_key() {
  static std::uint64_t next = std::uint64_t{1} << 40;
  next += kBatch;
  return next - kBatch;
}

void BM_Add_Cache(benchmark::State& state) {
  server();
  const auto cache = connected_cache();
  for (auto _ : state) {
    state.PauseTiming();
    add(*cache, keys_from(next_new_key(), kBatch));
    state.ResumeTiming();
    check(cache->flush());
  }
}

void BM_Add_hiredis(benchmark::State& state) {
  redisContext* const peer = server().peer();
  for (auto _ : state) {
    state.PauseTiming();
    const std::vector<bench::Key> keys = keys_from(next_new_key(), kBatch);
    state.ResumeTiming();
    for (const bench::Key& key : keys) {
      const std::string on_server = wire_key(key);
      const std::string value = std::string(20, 'h') + bench::make_value(key);
      redisAppendCommand(peer, "SET %b %b NX", on_server.data(), on_server.size(), value.data(),
                         value.size());
    }
    take_replies(peer, REDIS_REPLY_STATUS);
  }
}

// --- on this machine ---

// Has all entries of the server.
std::unique_ptr<quorvane::cache::Store> local_store() {
  static const bool written = [] {
    bench::root();
    bench::IndexedCache::write("local", kLookUps);
    return true;
  }();
  return written ? quorvane::cache::make_file_store(quorvane::cache::StoreKind::indexed, "local")
                 : nullptr;
}

std::unique_ptr<Cache> open_indexed() {
  return std::make_unique<Cache>("local", local_store(), false);
}

std::unique_ptr<Cache> open_tiered() {
  server();
  auto store = quorvane::cache::make_remote_store("bench", local_store());
  return std::make_unique<Cache>("bench", std::move(store), false);
}

// Each key once, so a repetition has as many iterations as there are keys.
void find_each(benchmark::State& state, Cache& cache) {
  std::size_t at = 0;
  for (auto _ : state) {
    check(cache.get_value(view(present()[at++])) != nullptr);
  }
}

void BM_LocalHit_Tiered(benchmark::State& state) { find_each(state, *open_tiered()); }
void BM_LocalHit_Indexed(benchmark::State& state) { find_each(state, *open_indexed()); }

void find_again(benchmark::State& state, Cache& cache) {
  for (const bench::Key& key : present()) {
    check(cache.get_value(view(key)) != nullptr);
  }
  find_each(state, cache);
}

void BM_Again_Remote(benchmark::State& state) {
  server();
  find_again(state, *open_cache());
}
void BM_Again_Indexed(benchmark::State& state) { find_again(state, *open_indexed()); }

BENCHMARK(BM_LocalHit_Tiered)->Iterations(kLookUps)->Repetitions(kRepetitions);
BENCHMARK(BM_LocalHit_Indexed)->Iterations(kLookUps)->Repetitions(kRepetitions);
BENCHMARK(BM_Again_Remote)->Iterations(kLookUps)->Repetitions(kRepetitions);
BENCHMARK(BM_Again_Indexed)->Iterations(kLookUps)->Repetitions(kRepetitions);
BENCHMARK(BM_Get_Cache)->Iterations(kLookUps)->Repetitions(kRepetitions);
BENCHMARK(BM_Get_hiredis)->Iterations(kLookUps)->Repetitions(kRepetitions);
BENCHMARK(BM_Prefetch_Cache)->Iterations(kBatches)->Repetitions(kRepetitions);
BENCHMARK(BM_Prefetch_hiredis)->Iterations(kBatches)->Repetitions(kRepetitions);
BENCHMARK(BM_Add_Cache)->Iterations(kBatches)->Repetitions(kRepetitions);
BENCHMARK(BM_Add_hiredis)->Iterations(kBatches)->Repetitions(kRepetitions);

// In seconds. The port is that of nobody.
double time_without_server() {
  setenv("QV_CACHE_REMOTE", "127.0.0.1:1", 1);
  unsetenv("QV_CACHE_REMOTE_TIMEOUT");
  const auto cache = open_cache();
  const std::vector<bench::Key> keys = keys_from(0, 10'000);
  const double begin = bench::now();
  for (const bench::Key& key : keys) {
    check(cache->get_value(view(key)) == nullptr);
  }
  return (bench::now() - begin) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
  bench::run(
      argc, argv,
      {{"look-up, to hiredis' GET", "BM_Get_Cache", "BM_Get_hiredis", 1.6},
       {"prefetch of 1000, to hiredis' pipeline", "BM_Prefetch_Cache", "BM_Prefetch_hiredis", 2},
       {"flush of 1000, to hiredis' pipeline", "BM_Add_Cache", "BM_Add_hiredis", 1.7},
       {"local hit of a tiered store, to indexed", "BM_LocalHit_Tiered", "BM_LocalHit_Indexed",
        1.1},
       {"second look-up, to that of an indexed store", "BM_Again_Remote", "BM_Again_Indexed", 1}});
  bench::print_ratio("10,000 look-ups without a server, s", time_without_server(), 1);
  return 0;
}
