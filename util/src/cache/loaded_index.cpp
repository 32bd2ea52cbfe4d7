#include "src/cache/loaded_index.h"

#include "src/cache/key_hash.h"

namespace quorvane {
namespace cache {

// Two thirds of the slots are used.
LoadedIndex::LoadedIndex(const EntryMap& map) : slots_(map.size() + map.size() / 2 + 1) {
  for (const auto& [key, value] : map) {
    const std::uint64_t hash = key_hash::of(key);
    std::size_t at = key_hash::scaled(hash, slots_.size());
    while (slots_[at].value != nullptr) {
      at = after(at);
    }
    slots_[at] = {hash, key.get_buffer(), key.get_size(), &value};
  }
}

const std::vector<util::RoBuffer>* LoadedIndex::find(const util::RoBuffer& key) const {
  const std::uint64_t hash = key_hash::of(key);
  std::size_t at = key_hash::scaled(hash, slots_.size());
  for (; slots_[at].value != nullptr; at = after(at)) {
    const Slot& slot = slots_[at];
    if (slot.hash == hash && key_hash::is_key(slot.key, slot.size, key)) {
      return slot.value;
    }
  }
  return nullptr;
}

}  // namespace cache
}  // namespace quorvane
