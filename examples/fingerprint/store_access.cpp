#include "fingerprint/store_access.h"

#include <quorvane/file_store.h>
#include <quorvane/remote_store.h>
#include <sys/stat.h>

#include <cstdlib>
#include <utility>
#include <vector>

#include "fingerprint/complaint.h"

namespace fingerprint {
namespace {

using quorvane::cache::Cache;
using quorvane::cache::CleanupController;
using quorvane::cache::LazyLookupStore;
using quorvane::cache::Store;
using quorvane::cache::StoreKind;
using quorvane::cache::StoreOptions;

std::unique_ptr<Cache> volatile_cache(const Options& options, const std::string& complaint) {
  complain(complaint + "; going on without a store");
  return std::make_unique<Cache>(options.store, nullptr, true);
}

std::vector<std::string> paths(const Options& options) {
  if (!options.uses_files) {
    return {};
  }
  const std::string root = options.root + "/";
  switch (options.kind) {
    case StoreKind::basic:
      return {root + options.store};
    case StoreKind::lazy_lookup:
      return {root + LazyLookupStore::get_key_fname(options.store),
              root + LazyLookupStore::get_val_fname(options.store)};
    default:
      return {root + "dat_" + options.store, root + "idx_" + options.store};
  }
}

// Without a limit the library warns that stores may grow. Here they may, unless the user sets
// one.
CleanupController* limit() {
  static CleanupController unlimited(0);
  const bool is_set = std::getenv("QV_CACHE_STORE_SIZE") != nullptr ||
                      std::getenv("QV_CACHE_STORE_CLEANUP_THRESHOLD") != nullptr;
  return is_set ? nullptr : &unlimited;
}

std::unique_ptr<Store> make_file_store(const Options& options) {
  StoreOptions store_options;
  store_options.kind = options.kind;
  store_options.name = options.store;
  store_options.root = options.root;
  store_options.controller = limit();
  return quorvane::cache::make_store(store_options);
}

std::unique_ptr<Store> make_store(const Options& options) {
  auto files = options.uses_files ? make_file_store(options) : nullptr;
  const bool is_whole = files == nullptr ? !options.uses_files : files->is_valid();
  return options.uses_servers && is_whole
             ? quorvane::cache::make_remote_store(options.store, std::move(files))
             : std::move(files);
}

}  // namespace

OpenedCache open_cache(const Options& options) {
  auto store = make_store(options);
  OpenedCache opened;
  if (store == nullptr || !store->is_valid()) {
    opened.cache = volatile_cache(
        options, options.uses_servers
                     ? "the store's directory or servers can't be used (the log says why)"
                     : options.root + ": not a directory that a store can be kept in");
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
  if (all.empty()) {
    return "the servers";
  }
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

}  // namespace fingerprint
