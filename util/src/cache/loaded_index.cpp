#include "src/cache/loaded_index.h"

#include <farmhash.h>

#include <bit>
#include <cstring>

namespace quorvane {
namespace cache {
namespace {

std::uint64_t hash_of(const util::RoBuffer& key) {
  return ::util::Hash64(reinterpret_cast<const char*>(key.get_buffer()), key.get_size());
}

bool same(const util::RoBuffer& a, const util::RoBuffer& b) {
  return a.get_size() == b.get_size() &&
         (a.get_size() == 0 || std::memcmp(a.get_buffer(), b.get_buffer(), a.get_size()) == 0);
}

// At most two slots in three are taken.
std::size_t slots_for(std::size_t entries) { return std::bit_ceil(entries + entries / 2 + 1); }

}  // namespace

LoadedIndex::LoadedIndex(const EntryMap& map)
    : slots_(slots_for(map.size())), mask_(slots_.size() - 1) {
  for (const auto& entry : map) {
    const std::uint64_t hash = hash_of(entry.first);
    std::size_t at = hash & mask_;
    while (slots_[at].entry != nullptr) {
      at = (at + 1) & mask_;
    }
    slots_[at] = {hash, &entry};
  }
}

const std::vector<util::RoBuffer>* LoadedIndex::find(const util::RoBuffer& key) const {
  const std::uint64_t hash = hash_of(key);
  for (std::size_t at = hash & mask_; slots_[at].entry != nullptr; at = (at + 1) & mask_) {
    if (slots_[at].hash == hash && same(slots_[at].entry->first, key)) {
      return &slots_[at].entry->second;
    }
  }
  return nullptr;
}

}  // namespace cache
}  // namespace quorvane
