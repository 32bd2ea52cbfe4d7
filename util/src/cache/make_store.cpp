#include <quorvane/file_store.h>
#include <sys/stat.h>

#include <exception>
#include <utility>

#include "src/cache/checks.h"
#include "src/cache/store_files.h"

namespace quorvane {
namespace cache {
namespace {

bool is_empty_file(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && status.st_size == 0;
}

// Creates the files of a lazy store, without which it doesn't load. If only one of them
// exists, leaves it alone: the load reports that.
std::unique_ptr<Store> make_lazy_lookup_store(const std::string& name,
                                              const std::shared_ptr<StoreFLock>& lock,
                                              CleanupController* controller) {
  auto store = std::make_unique<LazyLookupStore>(name, lock, controller);
  if (!store->is_valid()) {
    return store;
  }
  if (!is_empty_file(get_store_file_path(lock_file_name(name)))) {
    // Another process is creating the pair, or was killed while it did. Taking the lock
    // waits for the former and undoes the latter.
    lock->lock();
    lock->unlock();
  }
  if (!file_exists(get_store_file_path(LazyLookupStore::get_key_fname(name))) &&
      !file_exists(get_store_file_path(LazyLookupStore::get_val_fname(name)))) {
    store->try_store_diff({});
  }
  return store;
}

std::unique_ptr<Store> make_of_kind(StoreKind kind, const std::string& name,
                                    CleanupController* controller) {
  auto lock = std::make_shared<StoreFLock>(name);
  switch (kind) {
    case StoreKind::basic:
      return std::make_unique<BasicStore>(name, std::move(lock), controller);
    case StoreKind::lazy_lookup:
      return make_lazy_lookup_store(name, lock, controller);
  }
  return nullptr;
}

}  // namespace

std::unique_ptr<Store> make_file_store(StoreKind kind, const std::string& name,
                                       CleanupController* controller) {
  try {
    return make_of_kind(kind, name, controller);
  } catch (const std::exception& error) {
    QV_LOG(g_module, WARN, "Couldn't make a store for %s cache: %s", name.c_str(), error.what());
  }
  return nullptr;
}

}  // namespace cache
}  // namespace quorvane
