// A first, silent pass over a store's file. It finds the entries, so that they can be sorted
// by key before anything is built.
#ifndef QUORVANE_SRC_CACHE_ENTRY_SCAN_H_
#define QUORVANE_SRC_CACHE_ENTRY_SCAN_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include <quorvane/buffer.h>

namespace quorvane {
namespace cache {

// One entry in a mapped file.
struct ScannedEntry {
  std::size_t key_size;
  std::uint64_t key_prefix;  // the key's first 8 bytes, as a number that compares like them
  const unsigned char* key;  // followed by the value

  bool operator<(const ScannedEntry& other) const;

  // Copies an entry of a basic store. The buffers of a small entry share one allocation. In a
  // larger entry each buffer has its own, so that no buffer keeps much else in memory.
  std::pair<util::RoBuffer, std::vector<util::RoBuffer>> copy() const;
};

// Skips the part of an entry that follows its key. False when that is damaged.
using PassValue = std::function<bool(util::BufferReader&)>;

// PassValue for a basic store's file.
bool pass_basic_value(util::BufferReader& freader);

// Reads entries up to the end or up to the first damaged one, and leaves `freader` there.
// Returns them sorted by key; entries with the same key keep their order.
std::vector<ScannedEntry> scan_entries(util::BufferReader& freader, const PassValue& pass_value);

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_ENTRY_SCAN_H_
