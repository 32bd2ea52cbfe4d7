// Tells when no look-up can still use what was taken out of its reach.
#ifndef QUORVANE_SRC_CACHE_INDEXED_READER_GATE_H_
#define QUORVANE_SRC_CACHE_INDEXED_READER_GATE_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "src/process_generation.h"

namespace quorvane {
namespace cache {
namespace indexed {

// One gate for all stores of the process. A look-up marks its thread's slot with the number
// of the present round. What was taken out of reach in an earlier round can be freed once
// all slots are unmarked or of later rounds.
//
// A mark is a plain store: a locked instruction would keep the processor from overlapping
// the look-ups of a loop. So the thread that frees has the kernel run a memory barrier in all
// threads.
// Thread-safety: any thread. Fork-safety: a child may use it at once, and ignores the slots
// of threads that it doesn't have.
class ReaderGate {
 public:
  // Don't nest.
  class Inside {
   public:
    Inside() {
      if (t_claim.generation != process_generation()) {
        claim();
      }
      Slot* const slot = t_claim.slot;
      if (slot == nullptr) {
        ++without_slot;
        return;
      }
      slot->round.store(present_round.load(std::memory_order_acquire), std::memory_order_release);
      std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    ~Inside() {
      if (t_claim.slot != nullptr) {
        t_claim.slot->round.store(0, std::memory_order_release);
      } else {
        --without_slot;
      }
    }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
  };

  // Ends a round and returns its number. Call it when something was taken out of reach.
  static std::uint64_t end_round() { return present_round.fetch_add(1); }

  // The number of the first round that somebody may still be in. 0 when it can't be told.
  static std::uint64_t first_in_use();

 private:
  struct alignas(64) Slot {            // a cache line of its own
    std::atomic<std::uint64_t> owner;  // the generation of the thread's process
    std::atomic<std::uint64_t> round;  // 0: outside
  };
  struct Claim {
    Slot* slot;  // null: there was none left
    std::uint64_t generation;
  };
  struct AtThreadExit {
    ~AtThreadExit();
    bool is_registered;
  };

  static void claim();

  static constinit inline std::array<Slot, 256> slots{};
  static constinit inline std::atomic<std::uint64_t> present_round{1};
  static constinit inline std::atomic<std::uint64_t> without_slot{0};

  // Initial-exec: its use costs no call.
  __attribute__((tls_model("initial-exec"))) static constinit inline thread_local Claim t_claim{};
  static thread_local AtThreadExit t_at_exit;
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_READER_GATE_H_
