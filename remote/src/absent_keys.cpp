#include "src/absent_keys.h"

#include <algorithm>
#include <new>

namespace quorvane {
namespace remote {
namespace {

constexpr std::size_t kFirstSlots = 64;

// 0 marks a free slot.
std::uint64_t stored(std::uint64_t hash) { return std::max<std::uint64_t>(hash, 1); }

// The slot that has the hash, or the free one where it belongs.
std::size_t slot_for(const std::vector<std::uint64_t>& slots, std::uint64_t hash) {
  const std::size_t mask = slots.size() - 1;
  std::size_t slot = hash & mask;
  while (slots[slot] != 0 && slots[slot] != hash) {
    slot = (slot + 1) & mask;
  }
  return slot;
}

}  // namespace

bool AbsentKeys::has(std::uint64_t hash) const {
  return !slots_.empty() && slots_[slot_for(slots_, stored(hash))] != 0;
}

void AbsentKeys::add(std::uint64_t hash) noexcept {
  if (has(hash)) {
    return;
  }
  if (count_ == kMost) {
    forget();
  }
  if (make_room()) {
    slots_[slot_for(slots_, stored(hash))] = stored(hash);
    ++count_;
  }
}

void AbsentKeys::forget() noexcept {
  std::vector<std::uint64_t>().swap(slots_);
  count_ = 0;
}

bool AbsentKeys::make_room() noexcept {
  if (2 * count_ < slots_.size()) {
    return true;
  }
  try {
    std::vector<std::uint64_t> more(std::max(kFirstSlots, 2 * slots_.size()));
    for (const std::uint64_t hash : slots_) {
      if (hash != 0) {
        more[slot_for(more, hash)] = hash;
      }
    }
    slots_.swap(more);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace remote
}  // namespace quorvane
