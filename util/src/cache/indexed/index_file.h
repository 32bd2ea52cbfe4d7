// The index of an indexed store's data file.
#ifndef QUORVANE_SRC_CACHE_INDEXED_INDEX_FILE_H_
#define QUORVANE_SRC_CACHE_INDEXED_INDEX_FILE_H_

#include <atomic>
#include <cstdint>
#include <string>

#include "src/cache/indexed/data_file.h"
#include "src/cache/indexed/format.h"
#include "src/cache/indexed/mapping.h"
#include "src/cache/indexed/status.h"

namespace quorvane {
namespace cache {
namespace indexed {

// An open and mapped index: a hash table with open addressing in a file. It can be deleted
// at any time, since the data file has all that it is made of.
// Thread-safety: any thread may read; what changes the index needs the store lock.
// Fork-safety: a child may use its copy.
class IndexFile {
 public:
  IndexFile() = default;
  IndexFile(const IndexFile&) = delete;
  IndexFile& operator=(const IndexFile&) = delete;

  // Opens the index, if it belongs to `data` and was written since the last boot: the pages
  // of an older one may have reached the disk in any order.
  // `may_write` asks for a mapping that can be written to, if the file permits it.
  Status open(const std::string& path, const DataFile& data, bool may_write);

  std::uint32_t version() const { return page_.version; }  // of a file of another version too
  std::uint64_t slots() const { return page_.slots; }
  std::uint64_t covered_when_opened() const { return page_.covered; }
  std::uint64_t mapped_size() const { return mapping_.size(); }  // the whole file
  const descriptor::FileId& id() const { return id_; }
  bool is_writable() const { return writable_; }

  // Acquires what was written before the number was stored.
  std::uint64_t slot(std::uint64_t at) const {
    return std::atomic_ref<std::uint64_t>(slots_begin()[at]).load(std::memory_order_acquire);
  }
  // The first slot that may be that of a key with this hash. 0 when there is none.
  std::uint64_t first_slot_of(std::uint64_t hash) const {
    const std::uint64_t mask = slots() - 1;
    std::uint64_t at = hash & mask;
    // Bounded: a damaged index may have no free slot.
    for (std::uint64_t probes = 0; probes <= mask; ++probes, at = (at + 1) & mask) {
      const std::uint64_t found = slot(at);
      if (found == 0 || has_tag(found, hash)) {
        return found;
      }
    }
    return 0;
  }
  // Where first_slot_of begins.
  const std::uint64_t* place_of(std::uint64_t hash) const {
    return slots_begin() + (hash & (slots() - 1));
  }
  std::uint64_t covered() const { return load(&IndexPage::covered); }
  std::uint64_t indexed() const { return load(&IndexPage::indexed); }
  std::uint64_t entries() const { return load(&IndexPage::entries); }
  bool is_moving() const { return load(&IndexPage::moving) != 0; }

  // Releases what was written before.
  void set_slot(std::uint64_t at, std::uint64_t slot) const;
  void set_covered(std::uint64_t offset) const { store(&IndexPage::covered, offset); }
  void set_indexed(std::uint64_t offset) const { store(&IndexPage::indexed, offset); }
  void set_entries(std::uint64_t count) const { store(&IndexPage::entries, count); }
  void set_moving(bool moving) const { store(&IndexPage::moving, moving ? 1 : 0); }

  // The process is about to store so many slots. Whether most of them are in pages that it hasn't
  // changed through this mapping yet.
  bool meets_new_pages(std::uint64_t slots);

  // Gets the page of a slot, to store into it. Takes half the time of the two faults that a
  // look at the slot and a store into it would take.
  void populate(std::uint64_t at) const;

  // Lets go of the file: look-ups under way find free slots, and what is still written is
  // lost.
  void retire() { mapping_.empty(); }

 private:
  bool can_be_true(const DataFile& data) const;
  bool is_in_order() const;
  std::uint64_t load(std::uint64_t IndexPage::*word) const;
  void store(std::uint64_t IndexPage::*word, std::uint64_t value) const;
  IndexPage* page() const { return reinterpret_cast<IndexPage*>(mapping_.data()); }
  std::uint64_t* slots_begin() const {
    return reinterpret_cast<std::uint64_t*>(mapping_.data() + kIndexPageSize);
  }

  bool writable_ = false;
  std::uint64_t changed_ = 0;  // slots stored through this mapping; with the store lock
  descriptor::FileId id_;
  IndexPage page_{};  // as it was when the file was opened
  Mapping mapping_;
};

// The words of an index of `data` that never change.
IndexPage page_for(const DataFile& data, std::uint64_t slots);

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_INDEX_FILE_H_
