#include "src/cache/key_file_scan.h"

#include <algorithm>
#include <utility>
#include <vector>

#include <quorvane/file_store.h>

#include "src/cache/entry_scan.h"

namespace quorvane {
namespace cache {
namespace {

// The header before the first value.
constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kMagicSize = sizeof(QV_CACHE_STORE_MAGIC_NUMBER);

// Whether the positions are there and name bytes within a value file of this size.
bool pass_positions(util::BufferReader& key_freader, std::size_t val_file_size) {
  std::size_t val_offset = 0;
  std::size_t atoms = 0;
  if (!key_freader.get(&val_offset) || !key_freader.get(&atoms) || atoms == 0 ||
      val_offset < kHeaderSize || val_offset > val_file_size ||
      val_file_size - val_offset < kMagicSize) {
    return false;
  }
  std::size_t left = val_file_size - val_offset - kMagicSize;
  for (; atoms > 0; --atoms) {
    std::size_t atom_size = 0;
    if (!key_freader.get(&atom_size) || atom_size == 0 || atom_size > left) {
      return false;
    }
    left -= atom_size;
  }
  return true;
}

bool is_same_key(const ScannedEntry& before, const ScannedEntry& after) {
  return !(before < after);
}

}  // namespace

bool insert_whole_key_file(util::BufferReader key_freader, util::RoBuffer& val_fbuffer,
                           EntryMap& map) {
  const std::size_t left = key_freader.remaining();
  const unsigned char* const end = key_freader.buffer(0) + left;
  const auto entries = scan_entries(key_freader, [&val_fbuffer](util::BufferReader& freader) {
    return pass_positions(freader, val_fbuffer.get_size());
  });
  if (!map.empty() || key_freader.remaining() > 0 ||
      std::adjacent_find(entries.begin(), entries.end(), is_same_key) != entries.end()) {
    return false;
  }
  std::vector<std::size_t> sizes;
  for (const ScannedEntry& entry : entries) {
    const unsigned char* const positions = entry.key + entry.key_size;
    const auto bytes = util::RoBuffer::view(positions, static_cast<std::size_t>(end - positions));
    util::BufferReader freader = bytes.reader();
    std::size_t val_offset = 0;
    std::vector<util::RoBuffer> val;
    LazyLookupStore::read_val_atom_positions(freader, val_offset, sizes);
    LazyLookupStore::shallow_read_val(val_fbuffer, val_offset, sizes, val);
    map.emplace_hint(map.end(), util::RoBuffer::copy(entry.key, entry.key_size), std::move(val));
  }
  return true;
}

}  // namespace cache
}  // namespace quorvane
