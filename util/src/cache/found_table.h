// A hash table of the entries that look-ups have found in a store.
#ifndef QUORVANE_SRC_CACHE_FOUND_TABLE_H_
#define QUORVANE_SRC_CACHE_FOUND_TABLE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <quorvane/buffer.h>

#include "src/cache/key_hash.h"

namespace quorvane {
namespace cache {

// Only grows, so a value keeps its address as long as the table lives.
//
// Any number of threads may call find, also while one inserts: a reader may still probe
// slots that have been outgrown, so these are kept. Each array of slots is twice as large as
// the one before it, so all old ones together are smaller than the current one.
class FoundTable {
 public:
  using Value = std::vector<util::RoBuffer>;

  FoundTable() = default;
  ~FoundTable();
  FoundTable(const FoundTable&) = delete;
  FoundTable& operator=(const FoundTable&) = delete;

  // The value of `key`, whose lasting hash this is, or null. Takes no lock.
  const Value* find(const util::RoBuffer& key, std::uint64_t hash) const;
  const Value* find(const util::RoBuffer& key) const { return find(key, key_hash::lasting(key)); }

  // Inserts a copy of `key`, which must not be there, with `value`. Returns the value's
  // address. One thread at a time. Throws std::bad_alloc, and then has changed nothing.
  const Value* insert(const util::RoBuffer& key, Value&& value);

  // How many entries there are. For the thread that may insert.
  std::size_t size() const { return size_; }

 private:
  struct Node;

  // A slot's tag is 0 while it is free, else a byte of the hash. Most look-ups of a key that is
  // not here see only tags, and a million of those fit into the processor's caches.
  using Tag = std::uint8_t;

  struct Slots {
    explicit Slots(std::size_t count) : tags(count), nodes(count) {}

    std::vector<std::atomic<Tag>> tags;
    std::vector<const Node*> nodes;  // each is written before its tag is published
    std::unique_ptr<const Slots> outgrown;
  };

  static Tag tag_of(std::uint64_t hash) { return static_cast<Tag>(hash | 1); }

  bool is_full() const;
  void grow();
  static void put(Slots& slots, const Node* node);

  Node* last_ = nullptr;  // of a list of all
  std::size_t size_ = 0;
  std::unique_ptr<Slots> current_;
  std::atomic<const Slots*> published_{nullptr};
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_FOUND_TABLE_H_
