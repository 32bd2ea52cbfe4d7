#include "fingerprint/store_access.h"

#include <quorvane/file_store.h>
#include <sys/stat.h>

#include <cstdlib>

#include "fingerprint/complaint.h"

namespace fingerprint {
namespace {

using quorvane::cache::Cache;

std::unique_ptr<Cache> volatile_cache(const Options& options, const std::string& complaint) {
  complain(complaint + "; going on without a store");
  return std::make_unique<Cache>(options.store, nullptr, true);
}

}  // namespace

OpenedCache open_cache(const Options& options) {
  setenv("QV_CACHE_STORE_ROOT", options.root.c_str(), 1);
  // Without a threshold the library warns that stores may grow; here that is
  // meant, unless the user says otherwise.
  setenv("QV_CACHE_STORE_CLEANUP_THRESHOLD", "0", 0);
  auto store = quorvane::cache::make_file_store(quorvane::cache::StoreKind::basic, options.store);
  OpenedCache opened;
  if (!store->is_valid()) {
    opened.cache =
        volatile_cache(options, options.root + ": not a directory that a store can be kept in");
    return opened;
  }
  opened.cache = std::make_unique<Cache>(options.store, std::move(store), true);
  opened.persistent = opened.cache->is_valid();
  if (!opened.persistent) {
    opened.cache = volatile_cache(options, options.root + "/" + options.store +
                                               ": damaged or unreadable store (delete it to start "
                                               "anew)");
  }
  return opened;
}

std::uint64_t store_size(const Options& options) {
  struct stat file {};
  const std::string path = options.root + "/" + options.store;
  return stat(path.c_str(), &file) == 0 ? static_cast<std::uint64_t>(file.st_size) : 0;
}

}  // namespace fingerprint
