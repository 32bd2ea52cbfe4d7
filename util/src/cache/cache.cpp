#include <quorvane/cache.h>

#include <cxxabi.h>
#include <quorvane/file_store.h>
#include <quorvane/stats.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <new>
#include <stdexcept>
#include <typeinfo>
#include <utility>

#include "src/cache/cache_stats.h"
#include "src/cache/checks.h"
#include "src/cache/failure.h"
#include "src/cache/flush_turn.h"
#include "src/cache/found_table.h"
#include "src/cache/hex_key.h"
#include "src/cache/indexed/engine.h"
#include "src/cache/key_hash.h"
#include "src/cache/loaded_index.h"
#include "src/cache/trace.h"
#include "src/fork_guard.h"
#include "src/once.h"
#include "src/uncancellable.h"

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
template <typename Function>
bool try_store(const std::string& name, const Function& store) {
  try {
    if (store()) {
      return true;
    }
    Failure::note_unless_noted(EIO);
  } catch (...) {
    Failure::note_exception();
    QV_LOG(g_module, ERROR, "Storing %s cache failed: %s", name.c_str(), text_of_exception());
  }
  return false;
}

template <typename Function>
bool expect_stored(const std::string& name, const Function& store) {
  return CACHE_EXPECT_AS(1, try_store(name, store), "store_->try_store_diff(diff_map_)", __LINE__);
}

void report_stored(const std::string& name, const Store& store, std::size_t entries) {
  QV_LOG(g_module, DEBUG, "Stored %s cache diff data with %s store type, num diff entries = %lu",
         name.c_str(), type_of(store).c_str(), entries);
}

// Most stores that are asked key by key are exactly this. To see that, unlike a dynamic_cast,
// costs no time when a process opens its first cache.
bool is_indexed_store(const Store& store) {
  return typeid(store) == typeid(IndexedStore) ||
         dynamic_cast<const IndexedStore*>(&store) != nullptr;
}

LookupStore* lookup_store_of(Store& store) {
  return typeid(store) == typeid(IndexedStore) ? static_cast<IndexedStore*>(&store)
                                               : dynamic_cast<LookupStore*>(&store);
}

std::uint64_t flush_after_of(const Store& store, const LookupStore* lookup_store) {
  if (lookup_store != nullptr) {
    return lookup_store->flush_after();
  }
  const auto* file_store = dynamic_cast<const FileStoreSkeleton*>(&store);
  return file_store != nullptr ? file_store->flush_after() : 0;
}

}  // namespace

// What a cache needs to ask its store key by key.
struct Cache::LookedUp {
  LookedUp(LookupStore& lookup_store, const std::string& name)
      : store(lookup_store),
        stats(is_indexed_store(store) ? &CacheStats::of(name) : nullptr),
        engine(engine_of(store)) {}

  // With a tracer, each look-up is to be seen. A class derived from IndexedStore may look
  // elsewhere.
  static indexed::Engine* engine_of(LookupStore& store) {
    return !Trace::is_on() && typeid(store) == typeid(IndexedStore)
               ? static_cast<IndexedStore&>(store).engine_.get()
               : nullptr;
  }

  // Doesn't ask the store.
  const std::vector<util::RoBuffer>* find_known(Cache& cache, const util::RoBuffer& key,
                                                std::uint64_t hash) const {
    if (const auto* value = found.find(key, hash)) {
      return value;
    }
    if (const auto* value = cache.find_added(key)) {
      return value;
    }
    return snapshot.has_run() ? cache.find_loaded(key) : nullptr;
  }

  void prefetch_slot(std::uint64_t hash) const {
    if (engine != nullptr) {
      engine->prefetch_slot(hash);
    }
  }

  // Whether the store need not be asked.
  bool lacks(std::uint64_t hash) const { return engine != nullptr && engine->lacks(hash); }

  // A store that throws counts as one that doesn't have the key.
  bool has(const util::RoBuffer& key) const {
    try {
      std::vector<util::RoBuffer> value;
      return store.find_at_once(key, value);
    } catch (const abi::__forced_unwind&) {
      throw;
    } catch (...) {
      return false;
    }
  }

  LookupStore& store;
  const CacheStats* stats;  // null: this kind of store has none
  indexed::Engine* engine;  // the store's; null: ask the store itself
  FoundTable found;         // diff_mutex_ excludes insertions from each other
  Once snapshot;            // of all entries, in loaded_map_
};

Cache::Cache(const std::string& name, std::unique_ptr<Store>&& store, bool fallback_to_volatile) {
  try {
    name_ = name;
    set_up(std::move(store), fallback_to_volatile);
  } catch (const abi::__forced_unwind&) {
    throw;  // a cancelled thread must be allowed to end
  } catch (...) {
    Failure::note_exception();
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
    Failure::note_exception();
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
  auto* const lookup_store = lookup_store_of(*store_);
  if (lookup_store != nullptr) {
    looked_up_ = std::make_unique<LookedUp>(*lookup_store, name_);
  }
  flush_after_ = flush_after_of(*store_, lookup_store);
  flush_at_ = flush_after_;
  valid_ = true;
  QV_LOG(g_module, INFO, "Created %s cache with %s store type", name_.c_str(), type.c_str());
}

Cache::~Cache() {
  const Uncancellable uncancellable;  // a destructor that is unwound would end the process
  if (valid_ && store_ && !unstored_.empty()) {
    keep_only_unstored();
    if (expect_stored(name_, [this] { return store_->try_store_diff(diff_map_); })) {
      report_stored(name_, *store_, diff_map_.size());
    }
  }
  delete index_.load(std::memory_order_relaxed);
  fork_guard::remove(diff_mutex_);
}

const std::vector<util::RoBuffer>* Cache::get_value(const util::RoBuffer& key) {
  if (!valid_) {
    return nullptr;
  }
  const Counters& count = counters();
  const std::vector<util::RoBuffer>* value = nullptr;
  if (looked_up_ != nullptr) {
    value = look_up(key);
  } else if ((value = find_loaded(key)) == nullptr) {
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

// --- a store that is asked key by key ---

const std::vector<util::RoBuffer>* Cache::look_up(const util::RoBuffer& key) {
  const std::uint64_t hash = key_hash::lasting(key);
  looked_up_->prefetch_slot(hash);
  const auto* value = looked_up_->find_known(*this, key, hash);
  if (value == nullptr && !looked_up_->lacks(hash)) {
    value = try_ask_store(key);
  }
  if (looked_up_->stats != nullptr) {
    looked_up_->stats->count_lookup(value != nullptr);
    // Not with other stores: a key that is on other machines is nothing for a log on this one.
    if (value == nullptr) {
      QV_LOG(g_module, DEBUG, "Miss in %s cache: %s", name_.c_str(), HexKey(key).text());
    }
  }
  return value;
}

const std::vector<util::RoBuffer>* Cache::try_ask_store(const util::RoBuffer& key) {
  try {
    return ask_store(key);
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (...) {
    Failure::note_exception();
    QV_LOG(g_module, WARN, "A look-up in %s cache failed: %s", name_.c_str(), text_of_exception());
  }
  return nullptr;
}

const std::vector<util::RoBuffer>* Cache::find_known(const util::RoBuffer& key) {
  return looked_up_->find_known(*this, key, key_hash::lasting(key));
}

const std::vector<util::RoBuffer>* Cache::ask_store(const util::RoBuffer& key) {
  std::vector<util::RoBuffer> value;
  return looked_up_->store.find(key, value) ? keep_found(key, std::move(value)) : nullptr;
}

// Meanwhile another thread may have added the key, or found it: its value stays.
const std::vector<util::RoBuffer>* Cache::keep_found(const util::RoBuffer& key,
                                                     std::vector<util::RoBuffer>&& value) {
  const fork_guard::Lock lock(diff_mutex_);
  const auto added = diff_map_.find(key);
  if (added != diff_map_.end()) {
    return &added->second;
  }
  if (const auto* found = looked_up_->found.find(key)) {
    return found;
  }
  const auto loaded = loaded_map_.find(key);  // empty, unless a snapshot was taken
  return loaded != loaded_map_.end() ? &loaded->second
                                     : looked_up_->found.insert(key, std::move(value));
}

void Cache::prefetch(const util::RoBuffer* keys, std::size_t count) {
  if (looked_up_ == nullptr) {
    return;
  }
  try {
    std::vector<util::RoBuffer> unknown;
    std::copy_if(keys, keys + count, std::back_inserter(unknown),
                 [this](const util::RoBuffer& key) { return find_known(key) == nullptr; });
    if (!unknown.empty()) {
      looked_up_->store.prefetch(unknown.data(), unknown.size());
    }
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (...) {
    // The look-ups will do without it.
  }
}

// Reads without the mutex, but fills loaded_map_ under it: a child must not find that half
// done.
void Cache::take_snapshot() const {
  const Uncancellable uncancellable;  // nobody would end what a cancelled thread has begun
  try {
    looked_up_->snapshot.run([this] {
      map stored;
      if (!looked_up_->store.try_read_all(stored)) {
        throw std::runtime_error("the store can't be read");
      }
      for (const auto& [key, value] : diff_map_) {
        stored.erase(key);
      }
      const fork_guard::Lock lock(diff_mutex_);
      for (auto& [key, value] : stored) {
        if (const auto* found = looked_up_->found.find(key)) {
          value = *found;  // the store may have dropped it and got another value since
        }
      }
      loaded_map_.swap(stored);
    });
  } catch (...) {
    Failure::note_exception();
    QV_LOG(g_module, WARN, "Couldn't read all entries of %s cache: %s", name_.c_str(),
           text_of_exception());
  }
}

// --- additions and flushes ---

bool Cache::add_value(const util::RoBuffer& key, std::vector<util::RoBuffer> value) {
  if (!valid_) {
    return false;
  }
  if (const char* flaw = flaw_of(key, value)) {
    QV_LOG(g_module, WARN, "Refused to add an entry to %s cache: %s", name_.c_str(), flaw);
    return false;
  }
  bool flush_is_due = false;
  if (!try_add(key, std::move(value), flush_is_due)) {
    return false;
  }
  if (flush_is_due) {
    const Uncancellable uncancellable;
    const FlushTurn turn(flush_turn_, std::try_to_lock);
    if (turn.is_taken()) {
      store_unstored();
    }
  }
  return true;
}

bool Cache::try_add(const util::RoBuffer& key, std::vector<util::RoBuffer>&& value,
                    bool& flush_is_due) {
  try {
    if (is_stored(key)) {
      return false;
    }
    const fork_guard::Lock lock(diff_mutex_);
    const bool is_new = insert(key, std::move(value));
    flush_is_due = is_new && flush_after_ != 0 && unstored_.size() >= flush_at_;
    return is_new;
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (const std::bad_alloc&) {
    Failure::note(ENOMEM);
    QV_LOG(g_module, WARN, "Refused to add an entry to %s cache: no memory", name_.c_str());
  } catch (...) {
    Failure::note_exception();
    QV_LOG(g_module, WARN, "Refused to add an entry to %s cache: %s", name_.c_str(),
           text_of_exception());
  }
  return false;
}

// May throw what a LookupStore throws.
bool Cache::is_stored(const util::RoBuffer& key) {
  if (looked_up_ == nullptr) {
    return find_loaded(key) != nullptr;
  }
  const std::uint64_t hash = key_hash::lasting(key);
  if (looked_up_->find_known(*this, key, hash) != nullptr) {
    return true;
  }
  std::vector<util::RoBuffer> value;
  if (looked_up_->lacks(hash) || !looked_up_->store.find_at_once(key, value)) {
    return false;
  }
  keep_found(key, std::move(value));
  return true;
}

// The caller holds the mutex.
bool Cache::insert(const util::RoBuffer& key, std::vector<util::RoBuffer>&& value) {
  if (looked_up_ != nullptr && looked_up_->found.find(key) != nullptr) {
    return false;  // another thread has found it meanwhile
  }
  if (store_ != nullptr && unstored_.size() == unstored_.capacity()) {
    unstored_.reserve(std::max<std::size_t>(16, 2 * unstored_.size()));
  }
  const auto [entry, is_new] = diff_map_.emplace(key, std::move(value));
  if (is_new && store_ != nullptr) {
    unstored_.push_back(&*entry);
  }
  diff_size_.store(diff_map_.size(), std::memory_order_relaxed);
  return is_new;
}

bool Cache::flush() {
  if (!valid_ || store_ == nullptr) {
    return diff_size_.load(std::memory_order_relaxed) == 0;
  }
  const Uncancellable uncancellable;  // a cancelled thread would leave half a write behind
  const FlushTurn turn(flush_turn_);
  return store_unstored();
}

// The caller has the turn. Until they are stored the entries stay in unstored_, so that a
// child that is forked now has them, too.
bool Cache::store_unstored() {
  std::size_t entries = 0;
  const bool stored = expect_stored(name_, [&] {
    const map diff = copy_unstored();
    entries = diff.size();
    if (diff.empty() && looked_up_ != nullptr) {
      looked_up_->store.keep_found();
    }
    return diff.empty() || store_->try_store_diff(diff);
  });
  if (stored && entries > 0) {
    report_stored(name_, *store_, entries);
  }
  const fork_guard::Lock lock(diff_mutex_);
  if (stored) {
    unstored_.erase(unstored_.begin(), unstored_.begin() + static_cast<std::ptrdiff_t>(entries));
  }
  // A store that fails gets fewer and fewer attempts: each copies all entries.
  flush_at_ = stored ? flush_after_ : 2 * unstored_.size();
  return stored;
}

// The entries themselves neither move nor change, so the mutex is held only for this copy.
std::vector<const Cache::map::value_type*> Cache::list_unstored() {
  const fork_guard::Lock lock(diff_mutex_);
  return unstored_;
}

Cache::map Cache::copy_unstored() {
  map copy;
  for (const map::value_type* entry : list_unstored()) {
    copy.insert(*entry);
  }
  return copy;
}

// For the destructor, when nobody else uses the map. Allocates nothing.
void Cache::keep_only_unstored() {
  if (unstored_.size() == diff_map_.size()) {
    return;
  }
  map rest;
  for (const map::value_type* entry : unstored_) {
    rest.insert(diff_map_.extract(diff_map_.find(entry->first)));
  }
  diff_map_.swap(rest);
}

std::size_t Cache::size() {
  if (looked_up_ == nullptr) {
    const fork_guard::Lock lock(diff_mutex_);
    return diff_map_.size() + loaded_map_.size();
  }
  try {
    return count_all();
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (...) {
    QV_LOG(g_module, WARN, "Couldn't count the entries of %s cache: %s", name_.c_str(),
           text_of_exception());
  }
  return diff_size_.load(std::memory_order_relaxed);
}

// An addition that another process has stored first counts once. Repeated when something was
// stored meanwhile, such as an addition that is being flushed.
std::size_t Cache::count_all() {
  std::size_t count = 0;
  for (int attempts = 0; attempts < 3; ++attempts) {
    const std::uint64_t stored = looked_up_->store.entries();
    count = stored;
    for (const map::value_type* entry : list_unstored()) {
      count += looked_up_->has(entry->first) ? 0 : 1;
    }
    if (looked_up_->store.entries() == stored) {
      break;
    }
  }
  return count;
}

// --- iteration ---

Cache::const_iterator Cache::begin() const {
  if (looked_up_ != nullptr) {
    take_snapshot();
  }
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
