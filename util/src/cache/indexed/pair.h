// A data file and its index, as one process has them mapped.
#ifndef QUORVANE_SRC_CACHE_INDEXED_PAIR_H_
#define QUORVANE_SRC_CACHE_INDEXED_PAIR_H_

#include <atomic>
#include <cstdint>
#include <optional>

#include <quorvane/buffer.h>

#include "src/cache/indexed/data_file.h"
#include "src/cache/indexed/index_file.h"

namespace quorvane {
namespace cache {
namespace indexed {

// Finds entries without a lock and, but for entries that are new to this process, without a
// system call.
// Thread-safety: any number of threads may look up while one that holds the store lock
// changes the files. Fork-safety: a child may use its copy.
class Pair {
 public:
  struct Found {
    std::uint64_t offset;
    Entry entry;
  };

  // Opens both files. On another result than `fits`, `data` and `index` tell more.
  Status open(const std::string& data_path, const std::string& index_path, bool may_write);

  // The entry of `key`. `outgrown` is set when the data file has grown beyond its mapping,
  // so that the entry could not be looked at.
  std::optional<Found> find(const util::RoBuffer& key, std::uint64_t hash, bool& outgrown) const;

  // Up to here the data file can be read: it has whole entries, and is as long as that.
  std::uint64_t readable() const;

  // Gives the entry at `offset` a slot, unless its key has one. False when there is no free
  // slot.
  bool insert(const Entry& entry, std::uint64_t offset) const;

  // The same for a key that is known to have none.
  bool insert_new(std::uint64_t hash, std::uint64_t offset) const;

  // Keeps the pair in memory while a thread writes through it. False when it is retired.
  bool pin();
  void unpin();

  // Lets go of the files as soon as no thread writes through the pair. Look-ups under way
  // find nothing, and are repeated in the pair that has replaced this one.
  void retire();

  DataFile data;
  IndexFile index;
  Pair* replaced = nullptr;  // the pair that this one has replaced

 private:
  static constexpr unsigned kPinned = 1;
  static constexpr unsigned kRetired = 2;

  void let_go();
  std::optional<Entry> entry_at(std::uint64_t offset, bool& outgrown) const;

  // Up to here the data file is known to have whole entries. Only grows.
  mutable std::atomic<std::uint64_t> known_{0};
  std::atomic<unsigned> state_{0};
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_PAIR_H_
