// A silent pass over a lazy store's key file.
#ifndef QUORVANE_SRC_CACHE_KEY_FILE_SCAN_H_
#define QUORVANE_SRC_CACHE_KEY_FILE_SCAN_H_

#include <cstddef>

#include <quorvane/buffer.h>
#include <quorvane/store.h>

namespace quorvane {
namespace cache {

// Puts all entries from `key_freader`'s position to its end into the empty `map`. Inserts
// them in key order, which is many times faster than in file order. The atoms are views
// of `val_fbuffer`, whose first value is at the offset `first_value`. When anything is
// wrong, does nothing and returns false: the caller then reads entry by entry to report it.
bool insert_whole_key_file(util::BufferReader key_freader, const util::RoBuffer& val_fbuffer,
                           std::size_t first_value, EntryMap& map);

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_KEY_FILE_SCAN_H_
