// Look-ups in a cache of 1 M loaded entries, compared with absl::flat_hash_map and LMDB
// over the same keys in the same order.
#include <absl/container/flat_hash_map.h>
#include <lmdb.h>

#include "look_up.h"
#include "ratio.h"
#include "store_fixture.h"

namespace {

using namespace quorvane;

constexpr std::size_t kEntries = 1'000'000;

const std::vector<bench::Key>& keys() {
  static const auto all = bench::make_keys(kEntries);
  return all;
}

const std::vector<bench::Key>& present() {
  static const auto all = bench::shuffled(keys());
  return all;
}

const std::vector<bench::Key>& absent() {
  static const auto all = bench::make_keys(kEntries, 2);
  return all;
}

void look_up_cache(benchmark::State& state, const std::vector<bench::Key>& order) {
  static cache::Cache& loaded = []() -> cache::Cache& {
    bench::write_store("lookup", keys(), 1);
    return bench::indexed_cache("lookup", make_file_store(cache::StoreKind::basic, "lookup"),
                                present());
  }();
  bench::look_up_each(state, order, [](const bench::Key& key) { return bench::get(loaded, key); });
}

void BM_CacheHit(benchmark::State& state) { look_up_cache(state, present()); }
void BM_CacheMiss(benchmark::State& state) { look_up_cache(state, absent()); }

void BM_AbslHit(benchmark::State& state) {
  static const auto& map = *[] {
    auto* made = new absl::flat_hash_map<std::string, std::string>;
    for (const bench::Key& key : keys()) {
      made->emplace(key, bench::make_value(key));
    }
    return made;
  }();
  bench::look_up_each(state, present(), [](const bench::Key& key) { return map.find(key); });
}

struct Lmdb {
  MDB_env* env = nullptr;
  MDB_dbi dbi = 0;
  MDB_txn* txn = nullptr;

  static void check(int error) {
    if (error != 0) {
      std::fprintf(stderr, "lmdb: %s\n", mdb_strerror(error));
      std::abort();
    }
  }

  Lmdb() {
    const std::string path = bench::root() + "/lmdb";
    check(mdb_env_create(&env));
    check(mdb_env_set_mapsize(env, std::size_t{2} << 30));
    check(mdb_env_open(env, path.c_str(), MDB_NOSUBDIR | MDB_NOSYNC, 0644));
    check(mdb_txn_begin(env, nullptr, 0, &txn));
    check(mdb_dbi_open(txn, nullptr, 0, &dbi));
    for (const bench::Key& key : keys()) {
      std::string value = bench::make_value(key);
      MDB_val k{key.size(), const_cast<char*>(key.data())};
      MDB_val v{value.size(), value.data()};
      check(mdb_put(txn, dbi, &k, &v, 0));
    }
    check(mdb_txn_commit(txn));
    check(mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn));
  }
};

void BM_LmdbHit(benchmark::State& state) {
  static Lmdb& lmdb = *new Lmdb;
  bench::look_up_each(state, present(), [](const bench::Key& key) {
    MDB_val sought{bench::kKeySize, const_cast<char*>(key.data())};
    MDB_val value;
    Lmdb::check(mdb_get(lmdb.txn, lmdb.dbi, &sought, &value));
    return value;
  });
}

BENCHMARK(BM_CacheHit)->Repetitions(5);
BENCHMARK(BM_CacheMiss)->Repetitions(5);
BENCHMARK(BM_AbslHit)->Repetitions(5);
BENCHMARK(BM_LmdbHit)->Repetitions(5);

}  // namespace

int main(int argc, char** argv) {
  bench::root();
  return bench::run(argc, argv,
                    {{"hit / absl::flat_hash_map hit", "BM_CacheHit", "BM_AbslHit", 1.3},
                     {"hit / mdb_get", "BM_CacheHit", "BM_LmdbHit", 0.25},
                     {"miss / hit", "BM_CacheMiss", "BM_CacheHit", 1.0}});
}
