// LMDB as a peer of our stores.
#ifndef BENCH_LMDB_STORE_H_
#define BENCH_LMDB_STORE_H_

#include <lmdb.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <quorvane/store.h>

#include "numbered_key.h"
#include "store_fixture.h"

namespace bench {

// An open environment in one file.
class LmdbStore {
 public:
  // In the store root. Without MDB_NOSYNC in `flags`, commits wait for the disk.
  explicit LmdbStore(const std::string& name, unsigned flags = MDB_NOSYNC) {
    const std::string path = getenv("QV_CACHE_STORE_ROOT") + ("/lmdb_" + name);
    check(mdb_env_create(&env_));
    check(mdb_env_set_mapsize(env_, std::size_t{8} << 30));
    check(mdb_env_open(env_, path.c_str(), MDB_NOSUBDIR | flags, 0644));
    check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reading_));
    check(mdb_dbi_open(reading_, nullptr, 0, &dbi_));
  }
  ~LmdbStore() {
    mdb_txn_abort(reading_);
    mdb_env_close(env_);
  }
  LmdbStore(const LmdbStore&) = delete;
  LmdbStore& operator=(const LmdbStore&) = delete;

  // Inserts the entries in an order that looks random, as caches are filled: the tree's pages
  // are two thirds full then.
  static void write(const std::string& name, std::uint64_t entries) {
    LmdbStore store(name);
    MDB_txn* writing = nullptr;
    check(mdb_txn_begin(store.env_, nullptr, 0, &writing));
    for (std::uint64_t number = 0; number < entries; ++number) {
      const Key key = numbered_key(number);
      std::string value = make_value(key);
      MDB_val k{key.size(), const_cast<char*>(key.data())};
      MDB_val v{value.size(), value.data()};
      check(mdb_put(writing, store.dbi_, &k, &v, 0));
    }
    check(mdb_txn_commit(writing));
  }

  bool find(const Key& key) {
    MDB_val sought{key.size(), const_cast<char*>(key.data())};
    MDB_val value;
    const int error = mdb_get(reading_, dbi_, &sought, &value);
    if (error != MDB_NOTFOUND) {
      check(error);
    }
    return error == 0;
  }

  void append(const quorvane::cache::EntryMap& entries) {
    MDB_txn* writing = nullptr;
    check(mdb_txn_begin(env_, nullptr, 0, &writing));
    for (const auto& [key, value] : entries) {
      MDB_val k = view_of(key);
      MDB_val v = view_of(value.front());
      const int error = mdb_put(writing, dbi_, &k, &v, MDB_NOOVERWRITE);
      if (error != MDB_KEYEXIST) {
        check(error);
      }
    }
    check(mdb_txn_commit(writing));
  }

 private:
  static void check(int error) {
    if (error != 0) {
      std::fprintf(stderr, "lmdb: %s\n", mdb_strerror(error));
      std::abort();
    }
  }

  static MDB_val view_of(const quorvane::util::RoBuffer& buffer) {
    return {buffer.get_size(), const_cast<unsigned char*>(buffer.get_buffer())};
  }

  MDB_env* env_ = nullptr;
  MDB_txn* reading_ = nullptr;
  MDB_dbi dbi_ = 0;
};

}  // namespace bench

#endif  // BENCH_LMDB_STORE_H_
