// Which entries a clean keeps.
#ifndef QUORVANE_SRC_CACHE_INDEXED_KEPT_ENTRIES_H_
#define QUORVANE_SRC_CACHE_INDEXED_KEPT_ENTRIES_H_

#include <cstdint>
#include <vector>

#include "src/cache/indexed/index_builder.h"
#include "src/cache/indexed/pair.h"

namespace quorvane {
namespace cache {
namespace indexed {

// How many bytes both files may have together, and what is to be appended after the clean.
struct Bound {
  std::uint64_t limit;
  std::uint64_t bytes;
  std::uint64_t entries;

  // Whether a store whose data ends at `end` can take the append.
  bool takes(std::uint64_t end, std::uint64_t kept) const {
    return end + bytes + index_size_for(kept + entries) <= limit;
  }
  // Whether a clean may keep so much: half of the limit, and what leaves room.
  bool may_keep(std::uint64_t end, std::uint64_t kept) const {
    return end + index_size_for(kept) <= limit / 2 && takes(end, kept);
  }
};

// Chooses the newest entries, up to half of the limit, and within that half, up to a half of
// it, older entries that this process has found: otherwise a process would lose what it
// needs at every clean.
class KeptEntries {
 public:
  // Chooses among the entries of `pair` up to the offset `covered`. Only for entries that
  // have a slot: after a kill, the file may have a key twice.
  KeptEntries(const Pair& pair, std::uint64_t covered, const Bound& bound)
      : pair_(pair), covered_(covered), bound_(bound) {}

  // The offsets in file order. `found` has the hashes of keys. May throw std::bad_alloc.
  std::vector<std::uint64_t> choose(const std::vector<std::uint64_t>& found);

  // Where the data with the chosen entries ends.
  std::uint64_t end() const { return end_; }

 private:
  std::vector<std::uint64_t> all() const;
  std::vector<std::uint64_t> offsets_of(const std::vector<std::uint64_t>& hashes) const;
  std::uint64_t size_at(std::uint64_t offset) const;
  bool may_skip(std::uint64_t size) const;
  bool take(std::uint64_t offset, std::uint64_t size, std::uint64_t reserved);

  const Pair& pair_;
  const std::uint64_t covered_;
  const Bound bound_;
  std::vector<std::uint64_t> kept_;
  std::uint64_t end_ = kFirstEntry;  // of the data with the entries that are kept
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_KEPT_ENTRIES_H_
