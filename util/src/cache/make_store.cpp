#include <quorvane/file_store.h>
#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "src/cache/checks.h"
#include "src/cache/missing_store.h"
#include "src/cache/store_files.h"
#include "src/cache/store_place.h"

namespace quorvane {
namespace cache {
namespace {

bool is_empty_file(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && status.st_size == 0;
}

// The paths of the files that hold the entries.
std::vector<std::string> files_of(StoreKind kind, const StorePlace& place) {
  switch (kind) {
    case StoreKind::basic:
      return {place.path_of(place.name)};
    case StoreKind::lazy_lookup:
      return {place.path_of(LazyLookupStore::get_key_fname(place.name)),
              place.path_of(LazyLookupStore::get_val_fname(place.name))};
    case StoreKind::indexed:  // its index can be made again
      return {place.path_of("dat_" + place.name)};
  }
  return {};
}

bool has_files(StoreKind kind, const StorePlace& place) {
  const std::vector<std::string> files = files_of(kind, place);
  return std::any_of(files.begin(), files.end(), file_exists);
}

// Null for an unknown kind.
std::unique_ptr<Store> report_missing(StoreKind kind, const StorePlace& place) {
  const std::vector<std::string> files = files_of(kind, place);
  if (files.empty()) {
    return nullptr;
  }
  QV_LOG(g_module, ERROR, "Cache store %s doesn't exist", files.front().c_str());
  return std::make_unique<MissingStore>();
}

// Another process is creating the files, or was killed while it did. Taking the lock waits for
// the former and undoes the latter.
void settle_files(const StorePlace& place, StoreFLock& lock) {
  if (!is_empty_file(place.path_of(lock_file_name(place.name)))) {
    lock.lock();
    lock.unlock();
  }
}

// A store keeps its lock as long as it lives, and so the controller that comes with it.
struct LimitedLock {
  LimitedLock(const StorePlace& place, std::uint64_t size_limit)
      : controller(size_limit), lock(place) {}

  CleanupController controller;
  StoreFLock lock;
};

struct LockAndController {
  std::shared_ptr<StoreFLock> lock;
  CleanupController* controller;
};

LockAndController make_lock(StorePlace place, const StoreOptions& options) {
  if (options.kind == StoreKind::indexed && place.read_only) {
    return {nullptr, options.controller};  // it never takes the lock
  }
  // A process that only looks up needs no lock.
  place.late_lock = options.kind == StoreKind::indexed && !options.must_exist;
  if (options.controller != nullptr || options.size_limit == 0) {
    return {std::make_shared<StoreFLock>(place), options.controller};
  }
  auto limited = std::make_shared<LimitedLock>(place, options.size_limit);
  return {{limited, &limited->lock}, &limited->controller};
}

template <typename Kind>
std::unique_ptr<Store> make_of(const StorePlace& place, const LockAndController& with,
                               std::uint64_t flush_after) {
  auto store = std::make_unique<Kind>(place, with.lock, with.controller);
  store->set_flush_after(flush_after);
  return store;
}

std::unique_ptr<Store> make_of_kind(const StorePlace& place, const LockAndController& with,
                                    const StoreOptions& options) {
  switch (options.kind) {
    case StoreKind::basic:
      return make_of<BasicStore>(place, with, options.flush_after);
    case StoreKind::lazy_lookup:
      return make_of<LazyLookupStore>(place, with, options.flush_after);
    case StoreKind::indexed:
      return make_of<IndexedStore>(place, with, options.flush_after);
  }
  return nullptr;
}

// Creates the files of a lazy store, without which it doesn't load. If only one of them
// exists, leaves it alone: the load reports that. Ignores the root and the name of `options`.
std::unique_ptr<Store> make_at(const StorePlace& place, const StoreOptions& options) {
  const LockAndController with = make_lock(place, options);
  std::unique_ptr<Store> store = make_of_kind(place, with, options);
  if (store == nullptr) {
    return store;
  }
  const bool is_lazy = options.kind == StoreKind::lazy_lookup;
  if (!store->is_valid() || place.read_only || !(is_lazy || options.must_exist)) {
    return store;
  }
  settle_files(place, *with.lock);
  if (has_files(options.kind, place)) {
    return store;
  }
  if (options.must_exist) {
    return report_missing(options.kind, place);
  }
  store->try_store_diff({});
  return store;
}

// `root`, or that of the environment, so that it stays the same when the current directory
// changes. Empty if neither is set: each use reports that.
std::string absolute_root(const std::string& root) {
  const char* const from_environment = root.empty() ? root_from_environment() : nullptr;
  const std::string given = from_environment != nullptr ? from_environment : root;
  std::error_code error;
  const auto absolute = std::filesystem::absolute(given, error);
  return given.empty() || error ? given : absolute.string();
}

std::unique_ptr<Store> make_with_options(const StoreOptions& options) {
  const StorePlace place{absolute_root(options.root), options.name, options.read_only};
  if (options.must_exist && !place.root.empty() && !has_files(options.kind, place)) {
    return report_missing(options.kind, place);
  }
  return make_at(place, options);
}

std::unique_ptr<Store> make_of_environment(StoreKind kind, const std::string& name,
                                           CleanupController* controller) {
  StoreOptions options;
  options.kind = kind;
  options.controller = controller;
  return make_at(StorePlace{"", name}, options);
}

template <typename Make>
std::unique_ptr<Store> make_or_report(const std::string& name, const Make& make) {
  try {
    return make();
  } catch (const std::exception& error) {
    QV_LOG(g_module, WARN, "Couldn't make a store for %s cache: %s", name.c_str(), error.what());
  }
  return nullptr;
}

}  // namespace

std::unique_ptr<Store> make_file_store(StoreKind kind, const std::string& name,
                                       CleanupController* controller) {
  return make_or_report(name, [&] { return make_of_environment(kind, name, controller); });
}

std::unique_ptr<Store> make_store(const StoreOptions& options) {
  return make_or_report(options.name, [&] { return make_with_options(options); });
}

}  // namespace cache
}  // namespace quorvane
