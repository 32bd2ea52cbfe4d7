// Appends entries to an indexed store.
#ifndef QUORVANE_SRC_CACHE_INDEXED_APPEND_H_
#define QUORVANE_SRC_CACHE_INDEXED_APPEND_H_

#include <cstdint>
#include <string>
#include <vector>

#include <quorvane/store.h>

#include "src/cache/indexed/data_writer.h"
#include "src/cache/indexed/pair.h"
#include "src/cache/indexed/paths.h"

namespace quorvane {
namespace cache {
namespace indexed {

// One append to a pinned pair that is the present one. The store lock is held.
//
// A kill leaves, at each moment, one of these: bytes behind `covered`, of which the next append
// takes the whole entries and cuts off the rest; or entries between `indexed` and `covered`,
// for which it finishes the slots.
class Append {
 public:
  enum class Result {
    stored,
    index_is_full,  // make a larger index and try again
    failed          // nothing is stored; errno
  };

  // The tracer hears of `store`.
  Append(const Paths& paths, Pair& pair, const void* store)
      : paths_(paths), pair_(pair), store_(store) {}

  // Finishes what a killed process has begun. Call it first. False with errno.
  bool recover();

  // Chooses the entries of `diff`, which must stay, whose keys are not stored. May throw
  // std::bad_alloc.
  void choose(const EntryMap& diff);

  // The size of both files once the chosen entries are stored.
  std::uint64_t size_after() const;

  // Stores the chosen entries. May throw std::bad_alloc, and has then stored nothing.
  Result run();

 private:
  class Written;

  struct Slot {
    std::uint64_t hash;
    std::uint64_t offset;
    std::uint64_t damaged;
  };

  struct Chosen {
    EntryMap::const_iterator entry;
    std::uint64_t damaged;  // the offset of the damaged entry of its key, or 0
  };

  bool finish();
  bool take_tail(std::uint64_t size);
  void count_entries();
  Result write();
  bool write_batch(std::uint64_t& end, std::string& batch);
  bool publish(std::uint64_t end);

  const Paths& paths_;
  Pair& pair_;
  const void* const store_;
  DataWriter writer_;
  std::vector<Chosen> chosen_;
  std::vector<Slot> slots_;
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_APPEND_H_
