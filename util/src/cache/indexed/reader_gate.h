// Tells when no look-up can still use what was taken out of its reach.
#ifndef QUORVANE_SRC_CACHE_INDEXED_READER_GATE_H_
#define QUORVANE_SRC_CACHE_INDEXED_READER_GATE_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace quorvane {
namespace cache {
namespace indexed {

// A look-up marks a slot with the number of the present round. What was taken out of reach
// in an earlier round can be freed once all slots are free or of later rounds.
// Thread-safety: any thread. Fork-safety: a child may use its copy, and ignores the marks of
// threads that it doesn't have.
class ReaderGate {
 private:
  struct alignas(64) Slot {  // a cache line of its own
    std::atomic<std::uint64_t> mark{0};
  };

 public:
  class Inside {
   public:
    explicit Inside(ReaderGate& gate) : gate_(gate), slot_(gate.enter()) {}
    ~Inside() { gate_.leave(slot_); }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

   private:
    ReaderGate& gate_;
    Slot* const slot_;
  };

  // Ends a round and returns its number. Call it when something was taken out of reach.
  std::uint64_t end_round() { return round_.fetch_add(1); }

  // Whether all who entered up to the end of that round have left.
  bool has_drained(std::uint64_t round) const;

 private:
  static constexpr std::size_t kSlots = 64;

  Slot* enter();
  void leave(Slot* slot);

  std::array<Slot, kSlots> slots_;
  std::atomic<std::uint64_t> round_{1};
  std::atomic<std::uint64_t> without_slot_{0};  // how many are inside while all slots are taken
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_READER_GATE_H_
