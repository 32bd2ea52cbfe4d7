// A cache with one of our stores, with the operations that its peers have.
#ifndef BENCH_OWN_STORE_H_
#define BENCH_OWN_STORE_H_

#include <cstdlib>
#include <string>

#include <quorvane/cache.h>

#include "look_up.h"
#include "numbered_key.h"

namespace bench {

template <quorvane::cache::StoreKind kind>
class OwnStore {
 public:
  // In the store root.
  explicit OwnStore(const std::string& name)
      : cache_(name, quorvane::cache::make_file_store(kind, name), false) {
    if (!cache_.is_valid()) {
      std::abort();
    }
  }

  static void write(const std::string& name, std::uint64_t entries) {
    const auto store = quorvane::cache::make_file_store(kind, name);
    quorvane::cache::EntryMap none;
    store->try_load(none);
    for_each_batch(entries, [&store](const quorvane::cache::EntryMap& batch) {
      if (!store->try_store_diff(batch)) {
        std::abort();
      }
    });
  }

  bool find(const Key& key) { return get(cache_, key) != nullptr; }

 private:
  quorvane::cache::Cache cache_;
};

using BasicCache = OwnStore<quorvane::cache::StoreKind::basic>;
using LazyCache = OwnStore<quorvane::cache::StoreKind::lazy_lookup>;
using IndexedCache = OwnStore<quorvane::cache::StoreKind::indexed>;

}  // namespace bench

#endif  // BENCH_OWN_STORE_H_
