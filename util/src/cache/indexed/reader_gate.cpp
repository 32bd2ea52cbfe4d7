#include "src/cache/indexed/reader_gate.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

namespace quorvane {
namespace cache {
namespace indexed {
namespace {

// A memory barrier in all threads of the process.
bool run_barrier_everywhere() {
  constexpr auto call = [](int command) { return syscall(SYS_membarrier, command, 0, 0) == 0; };
  return call(MEMBARRIER_CMD_PRIVATE_EXPEDITED) ||
         (call(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) &&
          call(MEMBARRIER_CMD_PRIVATE_EXPEDITED));
}

}  // namespace

thread_local ReaderGate::AtThreadExit ReaderGate::t_at_exit{};

// Unless the slot is the parent's: another thread of this process may own it.
ReaderGate::AtThreadExit::~AtThreadExit() {
  if (t_claim.slot != nullptr && t_claim.generation == process_generation()) {
    t_claim.slot->owner.store(0, std::memory_order_release);
  }
  t_claim = {nullptr, process_generation()};  // for look-ups of later destructors
}

// A slot that a parent's thread owned is free in the child.
void ReaderGate::claim() {
  t_at_exit.is_registered = true;
  const std::uint64_t own = process_generation();
  t_claim = {nullptr, own};
  for (Slot& slot : slots) {
    std::uint64_t owner = slot.owner.load(std::memory_order_relaxed);
    if (owner != own && slot.owner.compare_exchange_strong(owner, own)) {
      slot.round.store(0);
      t_claim.slot = &slot;
      return;
    }
  }
}

// After the barrier, every look-up that has not marked its slot visibly sees what was changed
// before the call.
std::uint64_t ReaderGate::first_in_use() {
  if (!run_barrier_everywhere() || without_slot.load() != 0) {
    return 0;
  }
  const std::uint64_t own = process_generation();
  std::uint64_t first = present_round.load();
  for (const Slot& slot : slots) {
    const std::uint64_t round = slot.round.load();
    if (round != 0 && slot.owner.load() == own) {
      first = std::min(first, round);
    }
  }
  return first;
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
