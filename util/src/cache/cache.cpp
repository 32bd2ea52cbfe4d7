#include <quorvane/cache.h>

#include <cxxabi.h>
#include <quorvane/stats.h>

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "src/cache/checks.h"
#include "src/cache/loaded_index.h"
#include "src/fork_guard.h"
#include "src/once.h"

namespace quorvane {
namespace cache {
namespace {

struct Counters {
  qv_stats_handle_t hits;
  qv_stats_handle_t misses;
};

// The first look-up of the process makes them.
const Counters& counters() {
  static constinit Once once;
  static constinit Counters counters{};
  once.run([] {
    counters.hits = qv_stats_create_counter(g_module.get(), "cache_hits");
    counters.misses = qv_stats_create_counter(g_module.get(), "cache_misses");
  });
  return counters;
}

// An index pays off after look-ups of a sixteenth of the entries. It never does for a map
// that fits into the processor's caches.
constexpr std::size_t kSmallestIndexed = 512;
constexpr std::size_t kLookupsShare = 16;

// Why an entry could not be read back, or null if it could.
const char* flaw_of(const util::RoBuffer& key, const std::vector<util::RoBuffer>& value) {
  if (key.get_size() == 0) {
    return "its key is empty";
  }
  if (value.empty()) {
    return "it has no value atoms";
  }
  const bool has_empty_atom = std::any_of(
      value.begin(), value.end(), [](const util::RoBuffer& atom) { return atom.get_size() == 0; });
  return has_empty_atom ? "a value atom is empty" : nullptr;
}

// The text of the exception that is being handled.
const char* text_of_exception() {
  try {
    throw;
  } catch (const std::exception& error) {
    return error.what();
  } catch (...) {
    return "unknown exception";
  }
}

// For records that must be written even if type() throws.
std::string type_of(const Store& store) {
  try {
    return store.type();
  } catch (...) {
    return "unknown";
  }
}

// A store that throws counts as one that has not stored.
bool try_store_diff(const std::string& name, Store& store, const EntryMap& diff) {
  try {
    return store.try_store_diff(diff);
  } catch (...) {
    QV_LOG(g_module, ERROR, "Storing %s cache failed: %s", name.c_str(), text_of_exception());
  }
  return false;
}

void store_diff(const std::string& name, Store& store, const EntryMap& diff) {
  if (!CACHE_EXPECT_AS(1, try_store_diff(name, store, diff), "store_->try_store_diff(diff_map_)",
                       __LINE__)) {
    return;
  }
  QV_LOG(g_module, DEBUG, "Stored %s cache diff data with %s store type, num diff entries = %lu",
         name.c_str(), type_of(store).c_str(), diff.size());
}

}  // namespace

Cache::Cache(const std::string& name, std::unique_ptr<Store>&& store, bool fallback_to_volatile) {
  try {
    name_ = name;
    set_up(std::move(store), fallback_to_volatile);
  } catch (const abi::__forced_unwind&) {
    throw;  // a cancelled thread must be allowed to end
  } catch (...) {
    loaded_map_.clear();
    QV_LOG(g_module, ERROR, "Couldn't create %s cache: %s", name.c_str(), text_of_exception());
  }
  // Last, so that a cancelled constructor leaves no guard of a destroyed mutex.
  fork_guard::add(diff_mutex_);
}

void Cache::set_up(std::unique_ptr<Store>&& store, bool fallback_to_volatile) {
  if (!CACHE_EXPECT(3, fallback_to_volatile || (store != nullptr && store->is_valid()))) {
    return;
  }
  if (store == nullptr || !store->is_valid()) {
    valid_ = true;
    QV_LOG(g_module, INFO, "Created %s cache with no store", name_.c_str());
    return;
  }
  store_ = std::move(store);
  load();
}

// A store that throws, for example because there is no memory for the entries, counts as one
// that has not loaded.
bool Cache::try_load_store() {
  try {
    return store_->try_load(loaded_map_);
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (...) {
    QV_LOG(g_module, ERROR, "Loading %s cache failed: %s", name_.c_str(), text_of_exception());
  }
  return false;
}

void Cache::load() {
  if (!CACHE_EXPECT_AS(3, try_load_store(), "store_->try_load(loaded_map_)", __LINE__)) {
    // Not volatile instead. Kept: docs/compatibility.md
    loaded_map_.clear();
    QV_LOG(g_module, ERROR, "Couldn't create %s cache with %s store type", name_.c_str(),
           type_of(*store_).c_str());
    return;
  }
  const std::string type = store_->type();
  if (!loaded_map_.empty()) {
    QV_LOG(g_module, INFO, "Loaded %s cache data with %s store type, num entries = %lu",
           name_.c_str(), type.c_str(), loaded_map_.size());
  }
  valid_ = true;
  QV_LOG(g_module, INFO, "Created %s cache with %s store type", name_.c_str(), type.c_str());
}

Cache::~Cache() {
  if (valid_ && store_ && !diff_map_.empty()) {
    store_diff(name_, *store_, diff_map_);
  }
  delete index_.load(std::memory_order_relaxed);
  fork_guard::remove(diff_mutex_);
}

const std::vector<util::RoBuffer>* Cache::get_value(const util::RoBuffer& key) {
  if (!valid_) {
    return nullptr;
  }
  const Counters& count = counters();
  const std::vector<util::RoBuffer>* value = find_loaded(key);
  if (value == nullptr) {
    value = find_added(key);
  }
  qv_stats_counter_inc(value != nullptr ? count.hits : count.misses, 1);
  return value;
}

const std::vector<util::RoBuffer>* Cache::find_loaded(const util::RoBuffer& key) {
  if (const LoadedIndex* index = index_.load(std::memory_order_acquire)) {
    return index->find(key);
  }
  if (loaded_map_.size() >= kSmallestIndexed &&
      loaded_lookups_.fetch_add(1, std::memory_order_relaxed) ==
          loaded_map_.size() / kLookupsShare) {
    build_index();
  }
  const auto found = loaded_map_.find(key);
  return found == loaded_map_.end() ? nullptr : &found->second;
}

// Only one look-up in the life of a cache gets here. Until it is done, the others use the map.
void Cache::build_index() {
  try {
    index_.store(new LoadedIndex(loaded_map_), std::memory_order_release);
  } catch (const std::bad_alloc&) {
    QV_LOG(g_module, DEBUG, "No memory to index %s cache", name_.c_str());
  }
}

const std::vector<util::RoBuffer>* Cache::find_added(const util::RoBuffer& key) {
  // Only a hint whether to look. The mutex provides the ordering.
  if (diff_size_.load(std::memory_order_relaxed) == 0) {
    return nullptr;
  }
  const fork_guard::Lock lock(diff_mutex_);
  const auto found = diff_map_.find(key);
  return found == diff_map_.end() ? nullptr : &found->second;
}

bool Cache::add_value(const util::RoBuffer& key, std::vector<util::RoBuffer> value) {
  if (!valid_) {
    return false;
  }
  if (const char* flaw = flaw_of(key, value)) {
    QV_LOG(g_module, WARN, "Refused to add an entry to %s cache: %s", name_.c_str(), flaw);
    return false;
  }
  if (find_loaded(key) != nullptr) {
    return false;
  }
  try {
    const fork_guard::Lock lock(diff_mutex_);
    const bool added = diff_map_.emplace(key, std::move(value)).second;
    diff_size_.store(diff_map_.size(), std::memory_order_relaxed);
    return added;
  } catch (const std::bad_alloc&) {
    QV_LOG(g_module, WARN, "Refused to add an entry to %s cache: no memory", name_.c_str());
    return false;
  }
}

std::size_t Cache::size() {
  const fork_guard::Lock lock(diff_mutex_);
  return diff_map_.size() + loaded_map_.size();
}

Cache::const_iterator Cache::begin() const {
  return {loaded_map_, loaded_map_.begin(), diff_map_, diff_map_.begin()};
}

Cache::const_iterator Cache::end() const {
  return {loaded_map_, loaded_map_.end(), diff_map_, diff_map_.end()};
}

Cache::const_iterator::const_iterator(const map& first, map::const_iterator first_pos,
                                      const map& second, map::const_iterator second_pos)
    : first_(&first), first_pos_(first_pos), second_(&second), second_pos_(second_pos) {}

Cache::const_iterator& Cache::const_iterator::operator++() {
  if (first_pos_ != first_->end()) {
    ++first_pos_;
  } else if (second_pos_ != second_->end()) {
    ++second_pos_;
  }
  return *this;
}

Cache::const_iterator Cache::const_iterator::operator++(int) {
  const const_iterator before = *this;
  ++*this;
  return before;
}

Cache::const_iterator::reference Cache::const_iterator::operator*() const {
  return first_pos_ == first_->end() ? *second_pos_ : *first_pos_;
}

Cache::const_iterator::pointer Cache::const_iterator::operator->() const { return &**this; }

bool Cache::const_iterator::operator==(const const_iterator& other) const {
  return first_pos_ == other.first_pos_ && second_pos_ == other.second_pos_;
}

bool Cache::const_iterator::operator!=(const const_iterator& other) const {
  return !(*this == other);
}

}  // namespace cache
}  // namespace quorvane
