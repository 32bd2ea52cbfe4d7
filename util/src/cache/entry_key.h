// The first part of every entry.
#ifndef QUORVANE_SRC_CACHE_ENTRY_KEY_H_
#define QUORVANE_SRC_CACHE_ENTRY_KEY_H_

#include <quorvane/file_store.h>

namespace quorvane {
namespace cache {

// Reads the magic number and the key of the next entry. Empty, after a severity 1 check,
// when either is damaged.
inline util::RoBuffer read_entry_key(util::BufferReader& freader) {
  if (!FileStoreSkeleton::read_magic_number(freader)) {
    return {};
  }
  return FileStoreSkeleton::read_key(freader);
}

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_ENTRY_KEY_H_
