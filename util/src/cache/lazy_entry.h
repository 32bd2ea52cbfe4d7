// The two halves of a lazy store's entry: the key with the position of its value, and
// the value's bytes.
#ifndef QUORVANE_SRC_CACHE_LAZY_ENTRY_H_
#define QUORVANE_SRC_CACHE_LAZY_ENTRY_H_

#include <cstddef>
#include <vector>

#include <quorvane/buffer.h>

namespace quorvane {
namespace cache {
namespace lazy_entry {

// Sizes in bytes.
std::size_t size_in_key_file(const util::RoBuffer& key, const std::vector<util::RoBuffer>& val);
std::size_t size_in_val_file(const std::vector<util::RoBuffer>& val);

// Each returns false, after a severity 1 check, when the writer has too little room.
// `val_offset` is the offset of the value's magic number in the value file.
bool write_to_key_file(util::BufferWriter& fwriter, const util::RoBuffer& key,
                       std::size_t val_offset, const std::vector<util::RoBuffer>& val);
bool write_positions(util::BufferWriter& fwriter, std::size_t val_offset,
                     const std::vector<util::RoBuffer>& val);
bool write_to_val_file(util::BufferWriter& fwriter, const std::vector<util::RoBuffer>& val);
bool write_atoms(util::BufferWriter& fwriter, const std::vector<util::RoBuffer>& val);

}  // namespace lazy_entry
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_LAZY_ENTRY_H_
