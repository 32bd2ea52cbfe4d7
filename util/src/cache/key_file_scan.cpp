#include "src/cache/key_file_scan.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <vector>

#include <quorvane/file_store.h>

#include "src/cache/entry_scan.h"
#include "src/cache/key_slabs.h"

namespace quorvane {
namespace cache {
namespace {

constexpr std::size_t kMagicSize = sizeof(QV_CACHE_STORE_MAGIC_NUMBER);

std::size_t number_at(const unsigned char* bytes) {
  std::size_t number;
  std::memcpy(&number, bytes, sizeof(number));
  return number;
}

// Whether the positions are complete and the value is between the offset `first` and the end
// of the value file.
bool pass_positions(util::BufferReader& key_freader, std::size_t first, std::size_t val_file_size) {
  const unsigned char* const fixed = key_freader.buffer(2 * sizeof(std::size_t));
  if (fixed == nullptr) {
    return false;
  }
  const std::size_t val_offset = number_at(fixed);
  const std::size_t atoms = number_at(fixed + sizeof(std::size_t));
  if (atoms == 0 || atoms > key_freader.remaining() / sizeof(std::size_t) || val_offset < first ||
      val_offset > val_file_size || val_file_size - val_offset < kMagicSize) {
    return false;
  }
  const unsigned char* sizes = key_freader.buffer(atoms * sizeof(std::size_t));
  std::size_t left = val_file_size - val_offset - kMagicSize;
  for (std::size_t atom = 0; atom < atoms; ++atom, sizes += sizeof(std::size_t)) {
    const std::size_t atom_size = number_at(sizes);
    if (atom_size == 0 || atom_size > left) {
      return false;
    }
    left -= atom_size;
  }
  return true;
}

// Only for positions that pass_positions has checked.
std::vector<util::RoBuffer> atoms_at(const unsigned char* positions,
                                     const util::RoBuffer& val_fbuffer) {
  const unsigned char* atom = val_fbuffer.get_buffer() + number_at(positions) + kMagicSize;
  positions += sizeof(std::size_t);
  std::size_t atoms = number_at(positions);
  std::vector<util::RoBuffer> val;
  for (val.reserve(atoms); atoms > 0; --atoms) {
    positions += sizeof(std::size_t);
    const std::size_t size = number_at(positions);
    val.push_back(util::RoBuffer::view(atom, size));
    atom += size;
  }
  return val;
}

// In key order, entries are spread over a file that several processes have appended to.
constexpr std::size_t kPrefetched = 16;

void prefetch(const ScannedEntry& entry) {
  __builtin_prefetch(entry.key);
  __builtin_prefetch(entry.key + entry.key_size);
}

bool is_same_key(const ScannedEntry& before, const ScannedEntry& after) {
  return !(before < after);
}

}  // namespace

bool insert_whole_key_file(util::BufferReader key_freader, const util::RoBuffer& val_fbuffer,
                           std::size_t first_value, EntryMap& map) {
  const auto entries = scan_entries(key_freader, [&](util::BufferReader& freader) {
    return pass_positions(freader, first_value, val_fbuffer.get_size());
  });
  if (!map.empty() || key_freader.remaining() > 0 ||
      std::adjacent_find(entries.begin(), entries.end(), is_same_key) != entries.end()) {
    return false;
  }
  KeySlabs keys(std::accumulate(
      entries.begin(), entries.end(), std::size_t{0},
      [](std::size_t total, const ScannedEntry& entry) { return total + entry.key_size; }));
  for (std::size_t i = 0; i < entries.size(); ++i) {
    prefetch(entries[std::min(i + kPrefetched, entries.size() - 1)]);
    const ScannedEntry& entry = entries[i];
    map.emplace_hint(map.end(), keys.copy(entry.key, entry.key_size),
                     atoms_at(entry.key + entry.key_size, val_fbuffer));
  }
  return true;
}

}  // namespace cache
}  // namespace quorvane
