// A silent walk over a lazy store's key file.
#ifndef QUORVANE_SRC_CACHE_KEY_FILE_SCAN_H_
#define QUORVANE_SRC_CACHE_KEY_FILE_SCAN_H_

#include <cstddef>

#include <quorvane/buffer.h>
#include <quorvane/store.h>

namespace quorvane {
namespace cache {

// Puts all entries from `key_freader`'s position to its end into the empty `map`,
// in key order, which is many times faster than one by one as they lie. The
// atoms are views of `val_fbuffer`. False, with nothing done, when anything is
// wrong: read the entries one by one, then, to find what.
bool insert_whole_key_file(util::BufferReader key_freader, const util::RoBuffer& val_fbuffer,
                           EntryMap& map);

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_KEY_FILE_SCAN_H_
