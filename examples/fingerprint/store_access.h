// The cache of the digests, and its store.
#ifndef FINGERPRINT_STORE_ACCESS_H_
#define FINGERPRINT_STORE_ACCESS_H_

#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fingerprint/options.h"

namespace fingerprint {

struct OpenedCache {
  std::unique_ptr<quorvane::cache::Cache> cache;  // always usable
  bool persistent = false;                        // false: volatile, and the user was told
};

// Points the library at the root and loads the store. If the root or the store can't be
// used, complains once and returns a volatile cache, so that the run goes on.
OpenedCache open_cache(const Options& options);

// The paths of the store's files, for messages.
std::string store_files(const Options& options);

// The total size of the store's files; 0 when there are none.
std::uint64_t store_size(const Options& options);

// How many bytes an entry adds to a store of this kind.
std::uint64_t size_in_store(quorvane::cache::StoreKind kind, const quorvane::util::RoBuffer& key,
                            const std::vector<quorvane::util::RoBuffer>& value);

}  // namespace fingerprint

#endif  // FINGERPRINT_STORE_ACCESS_H_
