/// \file
/// A named map from byte strings to lists of byte strings that outlives the
/// process: loaded from a store when it is made, extended by what the process
/// adds, and handed back to the store when it is destroyed.
///
/// Thread-safety: get_value, add_value and size from any number of threads;
/// a hit on a loaded entry takes no lock. Iteration must not run beside
/// add_value. Construction and destruction are single-threaded.
/// Fork-safety: a child may look up, add to and destroy its copy; what both sides
/// add is stored once.
#ifndef QUORVANE_CACHE_H_
#define QUORVANE_CACHE_H_

#include <atomic>
#include <cstddef>
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
/// Invariant: no key is in both maps, the loaded and the added one.
/// Thread-safety: see the top of this header.
class QV_EXPORT Cache {
 public:
  using KeyStrictTotalOrder = KeyOrder;  ///< of the keys: shorter ones first, then by bytes
  using map = EntryMap;                  ///< the type of both maps

  /// Walks the loaded entries in key order, then the added ones in key order.
  class QV_EXPORT const_iterator {
   public:
    ///@{ What the standard library asks an iterator for.
    using iterator_category = std::forward_iterator_tag;
    using value_type = map::value_type;
    using difference_type = std::ptrdiff_t;
    using pointer = const value_type*;
    using reference = const value_type&;
    ///@}

    /// Stands at `first_pos` while that is not the end of `first`, then at
    /// `second_pos`. Both maps must outlive the iterator.
    const_iterator(const map& first, map::const_iterator first_pos, const map& second,
                   map::const_iterator second_pos);
    ///@{ Goes on to the next entry; not past the end.
    const_iterator& operator++();
    const_iterator operator++(int);
    ///@}

    ///@{ The key and the value; not at the end.
    reference operator*() const;
    pointer operator->() const;
    ///@}

    ///@{ Whether two iterators of one cache stand at the same entry.
    bool operator==(const const_iterator& other) const;
    bool operator!=(const const_iterator& other) const;
    ///@}

   private:
    const map* first_;
    map::const_iterator first_pos_;
    const map* second_;
    map::const_iterator second_pos_;
  };

  /// Loads everything that `store` holds. A valid store is taken over and leaves
  /// `store` empty. Without one the cache is volatile (it forgets everything at
  /// its destruction) if `fallback_to_volatile`, else invalid; `store` then stays
  /// with the caller. A load that fails leaves the cache invalid in any case, and
  /// so does a lack of memory or a store that throws; nothing gets out of here.
  /// Problems are logged through the module "util/src/cache"; ask is_valid().
  Cache(const std::string& name, std::unique_ptr<Store>&& store, bool fallback_to_volatile);

  /// Stores what was added. A failure, also an exception of the store, is logged,
  /// and the additions are lost.
  ~Cache();
  Cache(const Cache&) = delete;
  Cache& operator=(const Cache&) = delete;

  /// Whether the cache takes entries: what it has to load is loaded, or it is
  /// volatile. Doesn't change during its life.
  bool is_valid() const { return valid_; }

  /// The name that it was made with; empty when there was no memory for it.
  const std::string& get_name() const { return name_; }

  /// The value of `key`, or null. It stays where it is as long as the cache
  /// lives. Counts into the statistics cache_hits and cache_misses.
  const std::vector<util::RoBuffer>* get_value(const util::RoBuffer& key);

  /// Adds an entry that no map holds yet. False, changing nothing, when the key
  /// is there already or the cache is invalid. An entry that could be written but
  /// never read back (an empty key, no atoms, an empty atom), or for which there
  /// is no memory, is refused as well, with a WARN record.
  bool add_value(const util::RoBuffer& key, std::vector<util::RoBuffer> value);

  /// How many entries there are, loaded and added.
  std::size_t size();

  ///@{ The first entry, and past the last. Not beside add_value.
  const_iterator begin() const;
  const_iterator end() const;
  ///@}

  // End of the public interface.

 private:
  void set_up(std::unique_ptr<Store>&& store, bool fallback_to_volatile);
  void load();
  bool try_load_store();
  const std::vector<util::RoBuffer>* find_loaded(const util::RoBuffer& key);
  const std::vector<util::RoBuffer>* find_added(const util::RoBuffer& key);
  void build_index();

  std::string name_;
  std::unique_ptr<Store> store_;
  bool valid_ = false;
  map loaded_map_;
  std::mutex diff_mutex_;
  map diff_map_;

  // An index over loaded_map_, built once look-ups have paid for it.
  std::atomic<std::size_t> diff_size_{0};
  std::atomic<std::size_t> loaded_lookups_{0};
  std::atomic<const LoadedIndex*> index_{nullptr};
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_CACHE_H_
