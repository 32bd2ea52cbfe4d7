/// \file
/// A named map from byte strings to lists of byte strings that outlives the process.
/// The constructor loads it from a store, or opens a store that is asked key by key. The
/// process adds to it; a flush and the destructor store what was added.
///
/// Thread-safety: any number of threads may call get_value, add_value, size, flush and
/// prefetch; a hit on an entry that was loaded or found before takes no lock. Nobody may
/// iterate while add_value runs. One thread constructs and destroys.
/// Fork-safety: a child may look up in, add to, flush and destroy its copy; an entry that
/// parent and child both hold is stored once. Not in signal handlers; no flush in handlers of
/// pthread_atfork.
#ifndef QUORVANE_CACHE_H_
#define QUORVANE_CACHE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <quorvane/buffer.h>
#include <quorvane/export.h>
#include <quorvane/store.h>

namespace quorvane {
namespace cache {

class LoadedIndex;

/// A named, persistent map from byte strings to lists of byte strings.
///
/// A store is loaded by the constructor, as a whole, unless it is a LookupStore: that is
/// asked for each key that this process has neither found nor added, and finds what other
/// processes have stored meanwhile. What was found once stays in memory; a miss doesn't.
///
/// Invariant: no key is in both maps, the loaded and the added one. The loaded map never
/// changes once the constructor is done, or with a LookupStore once the first begin() is.
/// In one process a key has one value.
/// Thread-safety: any number of threads may call get_value, add_value, size, flush and
/// prefetch. Nobody may iterate while add_value runs; one thread constructs and destroys.
/// Fork-safety: a child may look up in, add to, flush and destroy its copy, whatever other
/// threads did at the fork; an entry that parent and child both hold is stored once.
class QV_EXPORT Cache {
 public:
  using KeyStrictTotalOrder = KeyOrder;  ///< of the keys: shorter ones first, then by bytes
  using map = EntryMap;                  ///< the type of both maps

  /// Walks the loaded entries in key order, then the added ones in key order. An
  /// iterator stays valid as long as its cache lives.
  /// Thread-safety: one thread at a time, and never while add_value runs. Fork-safety: a
  /// child's copy walks the child's cache.
  class QV_EXPORT const_iterator {
   public:
    ///@{ What the standard library expects of an iterator.
    using iterator_category = std::forward_iterator_tag;
    using value_type = map::value_type;
    using difference_type = std::ptrdiff_t;
    using pointer = const value_type*;
    using reference = const value_type&;
    ///@}

    /// Walks from `first_pos` to the end of `first`, then from `second_pos` to the end of
    /// `second`. Both maps must outlive the iterator.
    const_iterator(const map& first, map::const_iterator first_pos, const map& second,
                   map::const_iterator second_pos);
    ///@{ Moves to the next entry; stays at the end.
    const_iterator& operator++();
    const_iterator operator++(int);
    ///@}

    ///@{ The key and the value. Must not be at the end.
    reference operator*() const;
    pointer operator->() const;
    ///@}

    ///@{ Whether two iterators of one cache are at the same entry.
    bool operator==(const const_iterator& other) const;
    bool operator!=(const const_iterator& other) const;
    ///@}

   private:
    const map* first_;
    map::const_iterator first_pos_;
    const map* second_;
    map::const_iterator second_pos_;
  };

  /// Loads everything that `store` holds. A valid store is taken over, which leaves
  /// `store` empty. Without one, `store` stays the caller's, and `fallback_to_volatile`
  /// decides: true makes the cache volatile (its destructor forgets everything), false
  /// makes it invalid. A load that fails always makes it invalid, and so do a lack of
  /// memory and a store that throws; no exception leaves the constructor. Ask is_valid()
  /// for the result. Problems are logged through the module "util/src/cache": a severity
  /// 3 check for a missing store or a failed load, and an ERROR record for the latter.
  Cache(const std::string& name, std::unique_ptr<Store>&& store, bool fallback_to_volatile);

  /// Stores what was added and not flushed, with one DEBUG record. If the store fails, a
  /// severity 1 check reports it and these additions are lost; an exception from the store
  /// is logged at ERROR first.
  ~Cache();
  Cache(const Cache&) = delete;
  Cache& operator=(const Cache&) = delete;

  /// Whether the cache takes entries: its store is loaded, or it is volatile. Never
  /// changes.
  bool is_valid() const { return valid_; }

  /// The name given to the constructor; empty when there was no memory for it.
  const std::string& get_name() const { return name_; }

  /// The value of `key`; null when there is none or the cache is invalid. The pointer
  /// stays valid as long as the cache lives. Unless the cache is invalid, each call counts
  /// in the statistics cache_hits or cache_misses. A LookupStore that throws, or a lack of
  /// memory for what it has found, gives a WARN record and counts as a miss. Any thread.
  const std::vector<util::RoBuffer>* get_value(const util::RoBuffer& key);

  /// Adds an entry whose key is in neither map, nor in a LookupStore as far as that tells at
  /// once (LookupStore::find_at_once): to look for it waits for no other machine. Returns false and
  /// changes nothing when the key is there already or the cache is invalid. Refused with a
  /// WARN record: an entry that could be written but never read back (an empty key, no
  /// atoms, an empty atom), one for which there is no memory, and one about which a
  /// LookupStore throws. The cache shares the bytes and doesn't copy them, so the bytes of a
  /// view must outlive it.
  ///
  /// The addition that makes as many unstored ones as the store's flush_after() says flushes
  /// as flush() does, unless another thread is flushing. If that fails, the next attempt
  /// comes when there are twice as many. Any thread.
  bool add_value(const util::RoBuffer& key, std::vector<util::RoBuffer> value);

  /// Stores what was added and is not stored yet; the entries stay in the cache. True when
  /// all that was added before the call is stored, also when there was nothing to store.
  /// False when the cache has additions but no store, or when the store failed: what failed
  /// stays unstored for the next flush and the destructor, whose records and check this
  /// gives, too. A store on other machines that keeps entries on this one keeps those that it has
  /// found, also when there are no additions. Waits for a flush that runs in another thread;
  /// look-ups and additions go on meanwhile, and the calling thread can't be cancelled. Any thread,
  /// but not from within the store.
  bool flush();

  /// A hint that these `count` keys will be looked up: hands those that this process has
  /// neither found nor added to LookupStore::prefetch. Does nothing for other stores. An indexed
  /// store doesn't wait. A store on other machines brings the entries in one round trip, or in
  /// several if they are very many, each within its time limit, so that looking them up takes
  /// none. `keys` may be null when `count` is 0. Logs nothing itself, never fails. Any thread.
  void prefetch(const util::RoBuffer* keys, std::size_t count);

  /// How many entries there are, loaded or stored, and added. A LookupStore is asked, as in
  /// add_value, for each addition that this process hasn't stored, since another process may
  /// have; if it throws, a WARN record says so, and only additions count. Any thread.
  std::size_t size();

  ///@{ The first entry, and the end. Must not run while add_value does. With a LookupStore,
  /// the first begin() reads all stored entries, less those with keys that were added; later
  /// ones reuse them. If they can't be read, a WARN record says so, only the additions are
  /// visited, and the next begin() tries again.
  const_iterator begin() const;
  const_iterator end() const;
  ///@}

  // End of the public interface.

 private:
  struct LookedUp;

  void set_up(std::unique_ptr<Store>&& store, bool fallback_to_volatile);
  void load();
  bool try_load_store();
  const std::vector<util::RoBuffer>* find_loaded(const util::RoBuffer& key);
  const std::vector<util::RoBuffer>* find_added(const util::RoBuffer& key);
  void build_index();

  const std::vector<util::RoBuffer>* look_up(const util::RoBuffer& key);
  const std::vector<util::RoBuffer>* find_known(const util::RoBuffer& key);
  const std::vector<util::RoBuffer>* try_ask_store(const util::RoBuffer& key);
  const std::vector<util::RoBuffer>* ask_store(const util::RoBuffer& key);
  const std::vector<util::RoBuffer>* keep_found(const util::RoBuffer& key,
                                                std::vector<util::RoBuffer>&& value);
  void take_snapshot() const;

  bool is_stored(const util::RoBuffer& key);
  bool insert(const util::RoBuffer& key, std::vector<util::RoBuffer>&& value);
  bool try_add(const util::RoBuffer& key, std::vector<util::RoBuffer>&& value, bool& flush_is_due);
  std::size_t count_all();
  std::vector<const map::value_type*> list_unstored();
  map copy_unstored();
  bool store_unstored();
  void keep_only_unstored();

  std::string name_;
  std::unique_ptr<Store> store_;
  bool valid_ = false;
  mutable map loaded_map_;
  mutable std::mutex diff_mutex_;
  map diff_map_;

  // An index of loaded_map_, built once there were enough look-ups to pay for it.
  std::atomic<std::size_t> diff_size_{0};
  std::atomic<std::size_t> loaded_lookups_{0};
  std::atomic<const LoadedIndex*> index_{nullptr};

  // The additions that are not stored yet, oldest first. Only a flush removes some. The mutex
  // protects them, and flush_at_: how many make a flush due, if flush_after_ is not 0.
  std::vector<const map::value_type*> unstored_;
  std::uint64_t flush_after_ = 0;
  std::uint64_t flush_at_ = 0;
  std::atomic<std::uint64_t> flush_turn_{0};

  // Only with a LookupStore.
  std::unique_ptr<LookedUp> looked_up_;
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_CACHE_H_
