#include <quorvane/file_store.h>
#include <sys/stat.h>

#include <chrono>
#include <typeinfo>
#include <utility>

#include "src/cache/cache_stats.h"
#include "src/cache/checks.h"
#include "src/cache/indexed/engine.h"
#include "src/cache/store_files.h"
#include "src/cache/store_place.h"
#include "src/cache/trace.h"

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

// Null for a lock of another class. Spares the usual lock a dynamic_cast, whose first use in a
// process takes time.
StoreFLock* file_lock_of(Store::Lock* lock) {
  const bool is_exactly_that = lock != nullptr && typeid(*lock) == typeid(StoreFLock);
  return is_exactly_that ? static_cast<StoreFLock*>(lock) : dynamic_cast<StoreFLock*>(lock);
}

// Without statistics it doesn't look at the clock: to bind that at its first use takes as long as
// to open a file.
template <typename Open>
bool open_and_time(const CacheStats& stats, const Open& open) {
  if (!stats.is_captured()) {
    return open();
  }
  const auto start = std::chrono::steady_clock::now();
  const bool opened = open();
  stats.add_open(nanoseconds_since(start));
  return opened;
}

// For a controller, a store whose size is known.
class Measured : public CleanableResource {
 public:
  explicit Measured(std::uint64_t bytes) : bytes_(bytes) {}
  std::uint64_t get_usage() override { return bytes_; }
  void clean() override {}

 private:
  const std::uint64_t bytes_;
};

// Adds to the statistics what the engine has counted in the life of this object.
class Counted {
 public:
  Counted(const indexed::Engine& engine, const CacheStats& stats)
      : engine_(engine),
        stats_(stats),
        kept_(engine.kept()),
        dropped_(engine.dropped()),
        waited_(engine.lock_waited()) {}
  ~Counted() {
    stats_.count_cleaned(engine_.kept() - kept_, engine_.dropped() - dropped_);
    if (engine_.lock_waited() != waited_) {
      stats_.add_lock_wait(static_cast<std::int64_t>(engine_.lock_waited() - waited_));
    }
  }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

 private:
  const indexed::Engine& engine_;
  const CacheStats& stats_;
  const std::uint64_t kept_;
  const std::uint64_t dropped_;
  const std::uint64_t waited_;
};

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
  auto* const lock = file_lock_of(lock_.get());
  return lock != nullptr && lock->is_lost();
}

bool IndexedStore::try_load(EntryMap& out) {
  out.clear();
  const Counted counted(*engine_, stats_);
  Trace traced(engine_.get(), trace::Operation::store_open);
  const bool opened = open_and_time(
      stats_, [this] { return engine_->open_unlocked() || (!is_lock_lost() && engine_->open()); });
  Measured measured(engine_->usage_when_opened());
  traced.end(measured.get_usage());
  controller_->update_and_check_usage(ticket_, measured);
  if (stats_.is_captured()) {
    stats_.set_size(engine_->entries(), measured.get_usage());
  }
  return opened;
}

bool IndexedStore::try_store_diff(const EntryMap& diff) {
  if (is_lock_lost()) {
    return false;
  }
  if (is_readable_ && diff.empty()) {
    return true;  // nothing to store, and so no record about it
  }
  const Counted counted(*engine_, stats_);
  Trace traced(engine_.get(), trace::Operation::store_flush);
  const bool stored = engine_->store(diff, controller_->get_room(ticket_));
  traced.end(diff.size());
  measure();
  return stored;
}

// Tells the controller and the statistics.
void IndexedStore::measure() {
  controller_->update_and_check_usage(ticket_, *this);
  if (stats_.is_captured()) {
    stats_.set_size(engine_->entries(), get_usage());
  }
}

bool IndexedStore::find(const util::RoBuffer& key, std::vector<util::RoBuffer>& value) {
  Trace traced(engine_.get(), trace::Operation::store_find);
  const bool is_found = engine_->find(key, value);
  traced.end(is_found ? value.size() : 0);
  return is_found;
}

std::uint64_t IndexedStore::entries() { return engine_->entries(); }

void IndexedStore::prefetch(const util::RoBuffer* keys, std::size_t count) {
  engine_->prefetch(keys, count);
}

bool IndexedStore::try_read_all(EntryMap& out) { return engine_->read_all(out); }

std::uint64_t IndexedStore::get_usage() { return engine_->usage(); }

void IndexedStore::clean() {
  const std::uint64_t room = controller_->get_room(ticket_);
  if (room == indexed::kNoLimit || is_lock_lost()) {
    return;
  }
  const Counted counted(*engine_, stats_);
  engine_->clean(room);
  measure();
}

}  // namespace cache
}  // namespace quorvane
