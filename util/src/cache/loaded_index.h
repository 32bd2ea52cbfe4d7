// A hash index beside a loaded map that no longer changes.
#ifndef QUORVANE_SRC_CACHE_LOADED_INDEX_H_
#define QUORVANE_SRC_CACHE_LOADED_INDEX_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include <quorvane/store.h>

namespace quorvane {
namespace cache {

// Immutable once built; any number of threads may look up. Points into the map,
// which must outlive it and stay as it is.
class LoadedIndex {
 public:
  explicit LoadedIndex(const EntryMap& map);

  // The value of `key`, or null.
  const std::vector<util::RoBuffer>* find(const util::RoBuffer& key) const;

 private:
  struct Slot {
    std::uint64_t hash;
    const EntryMap::value_type* entry;  // null: free
  };

  std::vector<Slot> slots_;
  std::size_t mask_;
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_LOADED_INDEX_H_
