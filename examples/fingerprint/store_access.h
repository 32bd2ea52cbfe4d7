// The cache of the digests, and its store.
#ifndef FINGERPRINT_STORE_ACCESS_H_
#define FINGERPRINT_STORE_ACCESS_H_

#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <cstdint>
#include <memory>
#include <string>

#include "fingerprint/options.h"

namespace fingerprint {

struct OpenedCache {
  std::unique_ptr<quorvane::cache::Cache> cache;  // always usable
  bool persistent = false;                        // false: volatile, and the user was told
};

// Opens the store. If its root, its files or the setting of its servers can't be used, complains
// once and returns a volatile cache, so that the run goes on. It also goes on while no server
// answers.
OpenedCache open_cache(const Options& options);

// The paths of the store's files, or that it has none, for messages.
std::string store_files(const Options& options);

// The total size of the store's files; 0 when there are none.
std::uint64_t store_size(const Options& options);

}  // namespace fingerprint

#endif  // FINGERPRINT_STORE_ACCESS_H_
