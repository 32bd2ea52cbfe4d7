// Stores that are asked key by key.
#ifndef QUORVANE_SRC_CACHE_LOOKUP_STORE_H_
#define QUORVANE_SRC_CACHE_LOOKUP_STORE_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include <quorvane/store.h>

namespace quorvane {
namespace cache {

// The interface of a store that is asked key by key: opening it reads no entries. Its
// try_load opens it and leaves the map empty.
// Thread-safety: any thread may call find, entries and prefetch, also while another thread
// stores. Fork-safety: a child may use its copy at once.
class LookupStore : public Store {
 public:
  // Looks for the entry of `key`. If there is one, replaces `value` with a copy of its
  // atoms and returns true. Finds what any process has stored by now. Doesn't report a
  // miss. An entry that is damaged is a miss, with a record. May throw std::bad_alloc.
  virtual bool find(const util::RoBuffer& key, std::vector<util::RoBuffer>& value) = 0;

  // How many entries are stored by now.
  virtual std::uint64_t entries() = 0;

  // A hint that these keys will be looked up: asks the kernel to read their entries ahead.
  // Doesn't wait for that, and changes nothing else.
  virtual void prefetch(const util::RoBuffer* keys, std::size_t count) = 0;

  // Adds all stored entries to `out`. False when they can't be read.
  virtual bool try_read_all(EntryMap& out) = 0;
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_LOOKUP_STORE_H_
