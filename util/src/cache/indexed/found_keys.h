// The keys that a process has found in an indexed store.
#ifndef QUORVANE_SRC_CACHE_INDEXED_FOUND_KEYS_H_
#define QUORVANE_SRC_CACHE_INDEXED_FOUND_KEYS_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace quorvane {
namespace cache {
namespace indexed {

// Remembers hashes and not offsets: a hash stays the same when the index grows and when any
// process cleans the store.
//
// Invariant: holds at least the last 2^19 hashes, at most twice as many.
// Thread-safety: any thread. Fork-safety: a child may use its copy.
class FoundKeys {
 public:
  FoundKeys();
  ~FoundKeys();
  FoundKeys(const FoundKeys&) = delete;
  FoundKeys& operator=(const FoundKeys&) = delete;

  // Forgets the hash if there is no memory for it.
  void add(std::uint64_t hash) noexcept;

  // May throw std::bad_alloc.
  std::vector<std::uint64_t> all() const;

 private:
  // An open hash table; 0 is a free slot.
  struct Table {
    std::uint64_t* slot_of(std::uint64_t hash) const;
    bool contains(std::uint64_t hash) const { return slots != 0 && *slot_of(hash) != 0; }
    bool grow() noexcept;

    std::unique_ptr<std::uint64_t[]> hashes;
    std::size_t slots = 0;
    std::size_t taken = 0;
  };

  mutable std::mutex mutex_;
  Table latest_;
  Table earlier_;  // what latest_ was when it was full
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_FOUND_KEYS_H_
