#include "src/cache/lazy_entry.h"

#include <algorithm>

#include <quorvane/file_store.h>

#include "src/cache/checks.h"

namespace quorvane {
namespace cache {
namespace lazy_entry {

std::size_t size_in_key_file(const util::RoBuffer& key, const std::vector<util::RoBuffer>& val) {
  return sizeof(QV_CACHE_STORE_MAGIC_NUMBER) + sizeof(std::size_t) + key.get_size() +
         sizeof(std::size_t) + sizeof(std::size_t) + val.size() * sizeof(std::size_t);
}

std::size_t size_in_val_file(const std::vector<util::RoBuffer>& val) {
  std::size_t size = sizeof(QV_CACHE_STORE_MAGIC_NUMBER);
  for (const util::RoBuffer& atom : val) {
    size += atom.get_size();
  }
  return size;
}

bool write_to_key_file(util::BufferWriter& fwriter, const util::RoBuffer& key,
                       std::size_t val_offset, const std::vector<util::RoBuffer>& val) {
  return FileStoreSkeleton::write_magic_number(fwriter) &&
         FileStoreSkeleton::write_key(fwriter, key) && write_positions(fwriter, val_offset, val);
}

bool write_positions(util::BufferWriter& fwriter, std::size_t val_offset,
                     const std::vector<util::RoBuffer>& val) {
  if (!CACHE_EXPECT_AT(1, fwriter.put(val_offset), 973) ||
      !CACHE_EXPECT_AT(1, fwriter.put(val.size()), 977)) {
    return false;
  }
  return std::all_of(val.begin(), val.end(), [&fwriter](const util::RoBuffer& val_atom) {
    return CACHE_EXPECT_AT(1, fwriter.put(val_atom.get_size()), 983);
  });
}

bool write_to_val_file(util::BufferWriter& fwriter, const std::vector<util::RoBuffer>& val) {
  return FileStoreSkeleton::write_magic_number(fwriter) && write_atoms(fwriter, val);
}

bool write_atoms(util::BufferWriter& fwriter, const std::vector<util::RoBuffer>& val) {
  return std::all_of(val.begin(), val.end(), [&fwriter](const util::RoBuffer& val_atom) {
    // An empty atom has no bytes, and perhaps no address.
    return val_atom.get_size() == 0 ||
           CACHE_EXPECT_AT(1, fwriter.put_raw(val_atom.get_buffer(), val_atom.get_size()), 996);
  });
}

}  // namespace lazy_entry
}  // namespace cache
}  // namespace quorvane
