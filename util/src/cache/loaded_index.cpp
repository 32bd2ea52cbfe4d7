#include "src/cache/loaded_index.h"

#include <farmhash.h>

#include <cstring>

namespace quorvane {
namespace cache {
namespace {

std::uint64_t hash_of(const util::RoBuffer& key) {
  return ::util::Hash64(reinterpret_cast<const char*>(key.get_buffer()), key.get_size());
}

// The upper half of the product distributes hashes over any number of slots.
std::size_t scaled(std::uint64_t hash, std::size_t slots) {
  __extension__ using Wide = unsigned __int128;
  return static_cast<std::size_t>((static_cast<Wide>(hash) * slots) >> 64);
}

}  // namespace

// Two thirds of the slots are used.
LoadedIndex::LoadedIndex(const EntryMap& map) : slots_(map.size() + map.size() / 2 + 1) {
  for (const auto& [key, value] : map) {
    const std::uint64_t hash = hash_of(key);
    std::size_t at = scaled(hash, slots_.size());
    while (slots_[at].value != nullptr) {
      at = after(at);
    }
    slots_[at] = {hash, key.get_buffer(), key.get_size(), &value};
  }
}

const std::vector<util::RoBuffer>* LoadedIndex::find(const util::RoBuffer& key) const {
  const std::uint64_t hash = hash_of(key);
  std::size_t at = scaled(hash, slots_.size());
  for (; slots_[at].value != nullptr; at = after(at)) {
    if (slots_[at].hash == hash && slots_[at].has_key(key)) {
      return slots_[at].value;
    }
  }
  return nullptr;
}

bool LoadedIndex::Slot::has_key(const util::RoBuffer& wanted) const {
  return size == wanted.get_size() &&
         (size == 0 || std::memcmp(key, wanted.get_buffer(), size) == 0);
}

}  // namespace cache
}  // namespace quorvane
