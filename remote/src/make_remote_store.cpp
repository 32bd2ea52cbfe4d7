#include <quorvane/log.h>
#include <quorvane/remote_store.h>

#include <new>
#include <optional>
#include <utility>

#include "src/records.h"
#include "src/remote_store.h"
#include "src/settings.h"
#include "src/tiered_store.h"

namespace quorvane {
namespace remote {
namespace {

using cache::LookupStore;
using cache::Store;

std::unique_ptr<Store> invalid_store(const std::string& name) {
  return std::make_unique<RemoteStore>(name, std::nullopt);
}

// `local` is valid.
std::unique_ptr<Store> make_tiered(const std::string& name, const Settings& settings,
                                   std::unique_ptr<Store> local) {
  auto* const lookup_store = dynamic_cast<LookupStore*>(local.get());
  if (lookup_store == nullptr) {
    QV_LOG(g_module, ERROR, "A store of the type %s can't serve as the local one of %s cache",
           local->type().c_str(), name.c_str());
    return invalid_store(name);
  }
  if (settings.servers.empty()) {
    return local;
  }
  auto remote = std::make_unique<RemoteStore>(name, settings);
  if (!remote->is_valid()) {
    return remote;
  }
  std::unique_ptr<LookupStore> owned(lookup_store);
  static_cast<void>(local.release());
  return std::make_unique<TieredStore>(name, std::move(owned), std::move(remote));
}

std::unique_ptr<Store> make_store(const std::string& name, std::unique_ptr<Store> local) {
  const std::optional<Settings> settings = Settings::from_environment();
  if (!settings.has_value()) {
    return invalid_store(name);
  }
  if (local != nullptr && local->is_valid()) {
    return make_tiered(name, *settings, std::move(local));
  }
  if (settings->servers.empty()) {
    QV_LOG(g_module, ERROR, "No servers for %s cache: QV_CACHE_REMOTE isn't set", name.c_str());
  }
  return std::make_unique<RemoteStore>(name, settings);
}

}  // namespace
}  // namespace remote

namespace cache {

std::unique_ptr<Store> make_remote_store(const std::string& name, std::unique_ptr<Store> local) {
  try {
    return remote::make_store(name, std::move(local));
  } catch (const std::bad_alloc&) {
    QV_LOG(remote::g_module, WARN, "Couldn't make a store for %s cache: no memory", name.c_str());
  }
  return nullptr;
}

}  // namespace cache
}  // namespace quorvane
