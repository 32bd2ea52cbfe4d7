#include <quorvane/file_store.h>
#include <sys/stat.h>

#include <chrono>
#include <utility>

#include "src/cache/cache_stats.h"
#include "src/cache/checks.h"
#include "src/cache/indexed/engine.h"
#include "src/cache/store_files.h"
#include "src/cache/store_place.h"

namespace quorvane {
namespace cache {
namespace {

// The directory of the files; empty if the environment has none.
std::string root_of(const StorePlace& place) {
  const char* const from_environment = place.root.empty() ? root_from_environment() : nullptr;
  return from_environment != nullptr ? from_environment : place.root;
}

bool is_directory(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::int64_t nanoseconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::nanoseconds(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

IndexedStore::IndexedStore(const std::string& name, std::shared_ptr<Store::Lock> lock,
                           CleanupController* controller)
    : IndexedStore(StorePlace{"", name}, std::move(lock), controller) {}

IndexedStore::IndexedStore(const StorePlace& place, std::shared_ptr<Store::Lock> lock,
                           CleanupController* controller)
    : lock_(std::move(lock)),
      is_readable_(place.read_only && is_directory(root_of(place))),
      controller_(controller != nullptr ? controller
                                        : FileStoreSkeleton::get_default_cleanup_controller()),
      ticket_(controller_->get_ticket()),
      engine_(
          std::make_unique<indexed::Engine>(root_of(place), place.name, lock_, place.read_only)),
      stats_(CacheStats::of(place.name)) {}

IndexedStore::~IndexedStore() = default;

std::string IndexedStore::type() const { return "IndexedStore"; }

bool IndexedStore::is_valid() const {
  return is_readable_ || (lock_ != nullptr && lock_->is_valid());
}

bool IndexedStore::is_lock_lost() const {
  auto* const lock = dynamic_cast<StoreFLock*>(lock_.get());
  return lock != nullptr && lock->is_lost();
}

bool IndexedStore::try_load(EntryMap& out) {
  out.clear();
  if (is_lock_lost()) {
    return false;
  }
  const auto start = std::chrono::steady_clock::now();
  const bool is_open = engine_->open();
  stats_.add_open(nanoseconds_since(start));
  measure();
  return is_open;
}

bool IndexedStore::try_store_diff(const EntryMap& diff) {
  if (diff.empty() && is_readable_) {
    return true;
  }
  return !is_lock_lost() && change([&] { return engine_->store(diff, room()); });
}

void IndexedStore::clean() {
  if (room() != indexed::kNoLimit && !is_lock_lost()) {
    change([this] { return engine_->clean(room()); });
  }
}

// Counts what the change has cost. Changes in two threads at a time are counted together.
template <typename Change>
bool IndexedStore::change(const Change& change_files) {
  const std::uint64_t waited = engine_->lock_waited();
  const std::uint64_t kept = engine_->kept();
  const std::uint64_t dropped = engine_->dropped();
  const bool is_changed = change_files();
  stats_.add_lock_wait(static_cast<std::int64_t>(engine_->lock_waited() - waited));
  stats_.count_cleaned(engine_->kept() - kept, engine_->dropped() - dropped);
  measure();
  return is_changed;
}

std::uint64_t IndexedStore::room() const { return controller_->get_room(ticket_); }

// Tells the statistics, and the controller if it bounds anything.
void IndexedStore::measure() {
  stats_.set_size(engine_->entries(), get_usage());
  if (room() != indexed::kNoLimit) {
    controller_->update_and_check_usage(ticket_, *this);
  }
}

bool IndexedStore::find(const util::RoBuffer& key, std::vector<util::RoBuffer>& value) {
  return engine_->find(key, value);
}

std::uint64_t IndexedStore::entries() { return engine_->entries(); }

void IndexedStore::prefetch(const util::RoBuffer* keys, std::size_t count) {
  engine_->prefetch(keys, count);
}

bool IndexedStore::try_read_all(EntryMap& out) { return engine_->read_all(out); }

std::uint64_t IndexedStore::get_usage() { return engine_->usage(); }

}  // namespace cache
}  // namespace quorvane
