#include "src/cache/found_table.h"

#include "src/cache/key_hash.h"

namespace quorvane {
namespace cache {
namespace {

constexpr std::size_t kFirstSlots = 64;

std::size_t after(std::size_t at, std::size_t slots) { return at + 1 == slots ? 0 : at + 1; }

}  // namespace

const FoundTable::Value* FoundTable::find(const util::RoBuffer& key) const {
  const Slots* const published = published_.load(std::memory_order_acquire);
  if (published == nullptr) {
    return nullptr;
  }
  const std::size_t count = published->slots.size();
  const std::uint64_t hash = key_hash::of(key);
  for (std::size_t at = key_hash::scaled(hash, count);; at = after(at, count)) {
    const Tag tag = published->tags[at].load(std::memory_order_acquire);
    if (tag == 0) {
      return nullptr;
    }
    const Slot& slot = published->slots[at];
    if (tag == tag_of(hash) && slot.hash == hash && key_hash::is_key(slot.key, slot.size, key)) {
      return slot.value;
    }
  }
}

const FoundTable::Value* FoundTable::insert(const util::RoBuffer& key, Value&& value) {
  if (is_full()) {
    grow();
  }
  auto own_key = util::RoBuffer::copy(key.get_buffer(), key.get_size());
  const auto& entry = entries_.emplace_back(std::move(own_key), std::move(value));
  put(*current_, key_hash::of(entry.first), entry.first.get_buffer(), entry.first.get_size(),
      &entry.second);
  return &entry.second;
}

// At most two thirds of the slots are used.
bool FoundTable::is_full() const {
  return current_ == nullptr || (entries_.size() + 1) * 3 > current_->slots.size() * 2;
}

void FoundTable::grow() {
  auto larger =
      std::make_unique<Slots>(current_ == nullptr ? kFirstSlots : current_->slots.size() * 2);
  if (current_ != nullptr) {
    for (std::size_t at = 0; at < current_->slots.size(); ++at) {
      if (current_->tags[at].load(std::memory_order_relaxed) != 0) {
        const Slot& slot = current_->slots[at];
        put(*larger, slot.hash, slot.key, slot.size, slot.value);
      }
    }
  }
  larger->outgrown = std::move(current_);
  current_ = std::move(larger);
  published_.store(current_.get(), std::memory_order_release);
}

void FoundTable::put(Slots& slots, std::uint64_t hash, const unsigned char* key, std::size_t size,
                     const Value* value) {
  std::size_t at = key_hash::scaled(hash, slots.slots.size());
  while (slots.tags[at].load(std::memory_order_relaxed) != 0) {
    at = after(at, slots.slots.size());
  }
  slots.slots[at] = {hash, key, size, value};
  slots.tags[at].store(tag_of(hash), std::memory_order_release);
}

}  // namespace cache
}  // namespace quorvane
