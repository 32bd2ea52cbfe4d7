// A data file and its index, as one process has them mapped.
#ifndef QUORVANE_SRC_CACHE_INDEXED_PAIR_H_
#define QUORVANE_SRC_CACHE_INDEXED_PAIR_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

#include <quorvane/buffer.h>

#include "src/cache/indexed/data_file.h"
#include "src/cache/indexed/index_file.h"
#include "src/cache/indexed/paths.h"

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

  // Opens both files. `is_cleaned`: the data file as a cleaner leaves it when only the index
  // is renamed. On another result than `fits`, `data` and `index` tell more.
  Status open(const Paths& paths, bool is_cleaned, bool may_write);

  // The entry of `key`. `outgrown` is set when the data file has grown beyond its mapping,
  // so that the entry could not be looked at. With a buffer, an entry that fits is read into
  // it. Only its key has been checked then: an entry that isn't intact may be so in the mapping.
  std::optional<Found> find(const util::RoBuffer& key, std::uint64_t hash, bool& outgrown,
                            EntryBuffer* buffer = nullptr) const;

  // Up to here the data file can be read: it has whole entries, and is as long as that.
  std::uint64_t readable() const;

  // Gives the entry at `offset` a slot, unless an entry of its key that is not damaged has one.
  // False when there is no free slot.
  bool insert(const Entry& entry, std::uint64_t offset) const;

  // The same for a key that is known to have none, or only that of the entry at `damaged`,
  // which the new entry then takes over.
  bool insert_new(std::uint64_t hash, std::uint64_t offset, std::uint64_t damaged) const;

  // Keeps the files while a thread writes through the pair or copies it. False when it is
  // retired.
  bool pin();
  void unpin();
  // Whether it is retired, and its files are let go: nobody writes through it any more.
  bool is_gone() const { return state_.load() == (kRetired | kGone); }

  // Lets go of the files as soon as the pair isn't pinned. Look-ups under way
  // find nothing, and are repeated in the pair that has replaced this one.
  void retire();

  // The bytes of both files.
  std::uint64_t usage_when_opened() const { return data.size_when_opened() + index.mapped_size(); }

  DataFile data;
  IndexFile index;

  // For the list of retired pairs, which must need no memory of its own.
  std::unique_ptr<Pair> next;
  std::uint64_t round = 0;  // threads that entered the gate until then may use the pair

 private:
  static constexpr unsigned kRetired = 1;
  static constexpr unsigned kGone = 2;
  static constexpr unsigned kPin = 4;  // of one thread

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
