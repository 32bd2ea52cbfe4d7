#include "src/cache/indexed/reader_gate.h"

#include "src/process_generation.h"

namespace quorvane {
namespace cache {
namespace indexed {
namespace {

// A mark has the number of the round below 16 bits of the process's generation.
constexpr unsigned kRoundBits = 48;
constexpr std::uint64_t kRoundMask = (std::uint64_t{1} << kRoundBits) - 1;

std::uint64_t own_generation() { return process_generation() << kRoundBits; }

bool is_of(std::uint64_t mark, std::uint64_t generation) {
  return mark != 0 && ((mark ^ generation) & ~kRoundMask) == 0;
}

// The address of its copy tells threads apart. Initial-exec: its use costs no call.
__attribute__((tls_model("initial-exec"))) thread_local char t_identity;

std::size_t hash_of_thread() {
  return (reinterpret_cast<std::uintptr_t>(&t_identity) * 0x9e3779b97f4a7c15U) >> 58;
}

}  // namespace

// Sequentially consistent, as the change of the pointer that the caller reads next: either
// that change is seen, or has_drained sees the mark.
ReaderGate::Slot* ReaderGate::enter() {
  const std::uint64_t generation = own_generation();
  const std::uint64_t mark = generation | (round_.load() & kRoundMask);
  const std::size_t first = hash_of_thread();
  for (std::size_t i = 0; i < kSlots; ++i) {
    Slot& slot = slots_[(first + i) % kSlots];
    std::uint64_t seen = slot.mark.load(std::memory_order_relaxed);
    if (!is_of(seen, generation) && slot.mark.compare_exchange_strong(seen, mark)) {
      return &slot;
    }
  }
  ++without_slot_;
  return nullptr;
}

void ReaderGate::leave(Slot* slot) {
  if (slot != nullptr) {
    slot->mark.store(0, std::memory_order_release);
  } else {
    --without_slot_;
  }
}

bool ReaderGate::has_drained(std::uint64_t round) const {
  if (without_slot_.load() != 0) {
    return false;
  }
  const std::uint64_t generation = own_generation();
  for (const Slot& slot : slots_) {
    const std::uint64_t mark = slot.mark.load();
    if (is_of(mark, generation) && (mark & kRoundMask) <= round) {
      return false;
    }
  }
  return true;
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
