// A first, silent walk over a store's file: where the entries lie, so that they
// can be put into key order before anything is built.
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

// One entry as it lies in the file. Its bytes are the file's.
struct ScannedEntry {
  std::size_t key_size;
  std::uint64_t key_prefix;  // the key's first bytes, comparable as a number
  const unsigned char* key;  // followed by the value

  bool operator<(const ScannedEntry& other) const;

  // Copies a basic store's entry. A small entry is one allocation, which its buffers share;
  // in a larger one each owns its own, so that no buffer keeps much beside
  // itself in memory.
  std::pair<util::RoBuffer, std::vector<util::RoBuffer>> copy() const;
};

// Passes over what follows the key of an entry; false when that is damaged.
using PassValue = std::function<bool(util::BufferReader&)>;

// The value as it lies in a basic store's file.
bool pass_basic_value(util::BufferReader& freader);

// Reads entries until the end or the first damage, which is where `freader` then
// stands: at the beginning of the damaged entry. Sorts them by key; entries of
// one key keep their order.
std::vector<ScannedEntry> scan_entries(util::BufferReader& freader, const PassValue& pass_value);

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_ENTRY_SCAN_H_
