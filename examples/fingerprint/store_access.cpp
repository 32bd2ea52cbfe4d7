#include "fingerprint/store_access.h"

#include <quorvane/file_store.h>
#include <sys/stat.h>

#include <cstdlib>

#include "fingerprint/complaint.h"

namespace fingerprint {
namespace {

using quorvane::cache::BasicStore;
using quorvane::cache::Cache;
using quorvane::cache::LazyLookupStore;
using quorvane::cache::StoreKind;

std::unique_ptr<Cache> volatile_cache(const Options& options, const std::string& complaint) {
  complain(complaint + "; going on without a store");
  return std::make_unique<Cache>(options.store, nullptr, true);
}

std::vector<std::string> paths(const Options& options) {
  const std::string root = options.root + "/";
  if (options.kind == StoreKind::basic) {
    return {root + options.store};
  }
  return {root + LazyLookupStore::get_key_fname(options.store),
          root + LazyLookupStore::get_val_fname(options.store)};
}

}  // namespace

OpenedCache open_cache(const Options& options) {
  setenv("QV_CACHE_STORE_ROOT", options.root.c_str(), 1);
  // Without a threshold the library warns that stores may grow. Here they may, unless the
  // user sets one.
  setenv("QV_CACHE_STORE_CLEANUP_THRESHOLD", "0", 0);
  auto store = quorvane::cache::make_file_store(options.kind, options.store);
  OpenedCache opened;
  if (!store->is_valid()) {
    opened.cache =
        volatile_cache(options, options.root + ": not a directory that a store can be kept in");
    return opened;
  }
  opened.cache = std::make_unique<Cache>(options.store, std::move(store), true);
  opened.persistent = opened.cache->is_valid();
  if (!opened.persistent) {
    opened.cache = volatile_cache(options, store_files(options) +
                                               ": damaged or unreadable store (delete it to start "
                                               "anew)");
  }
  return opened;
}

std::string store_files(const Options& options) {
  const std::vector<std::string> all = paths(options);
  return all.size() == 1 ? all.front() : all.front() + " and " + all.back();
}

std::uint64_t store_size(const Options& options) {
  std::uint64_t size = 0;
  for (const std::string& path : paths(options)) {
    struct stat file {};
    size += stat(path.c_str(), &file) == 0 ? static_cast<std::uint64_t>(file.st_size) : 0;
  }
  return size;
}

std::uint64_t size_in_store(StoreKind kind, const quorvane::util::RoBuffer& key,
                            const std::vector<quorvane::util::RoBuffer>& value) {
  return kind == StoreKind::basic
             ? BasicStore::get_entry_representation_size(key, value)
             : LazyLookupStore::get_key_file_entry_representation_size(key, value) +
                   LazyLookupStore::get_val_file_entry_representation_size(value);
}

}  // namespace fingerprint
