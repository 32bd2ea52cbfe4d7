/// \file
/// The index discipline of a ring between any number of producers and one
/// consumer.
///
/// A ring holds no entries: it hands out slot numbers, and its user keeps an
/// array of the ring's size that they index. A producer reserves a slot, fills
/// it and commits it; the consumer sees the entries in the order in which their
/// slots were reserved. A ring of size N holds at most N - 1 entries.
///
/// \code
///   entries[ring.wr_slot(reservation = ring.wr_reserve())] = entry;
///   ring.wr_commit(reservation);
///
///   auto lock = ring.rd_lock();
///   for (unsigned slot;;) {
///     while (ring.rd_head(slot)) {
///       use(entries[slot]);
///       ring.rd_advance();
///     }
///     ring.rd_wait(lock);
///   }
/// \endcode
///
/// Thread-safety: any number of threads for the wr_ operations, one thread for
/// the rd_ operations.
/// Fork-safety: none; a ring is of use only to the process that made it.
///
/// Before you use one:
/// - A commit spins until all earlier reservations are committed. A producer that
///   loses its core between the two holds up all others, which burn theirs: four
///   producers on two busy cores handed over anything from 5 thousand to 11 million
///   items a second, and single commits took 60 to 110 ms; a single producer gets to
///   25 to 40 million. Keep what lies between reservation and commit short, and have no
///   more threads at a ring than cores to spare.
/// - A commit on a drained ring takes the consumer's lock to wake it, and so waits
///   for a consumer that is at work: up to 6 ms on busy cores. A consumer must
///   never commit, to this ring or to one whose consumer may be waiting for it,
///   while it holds rd_lock(): that wait may have no end.
/// - A producer asleep on a full ring is woken only when the ring has been drained,
///   not when a slot is free: of 1024 slots, 1023 entries later. Consume to the end
///   before you wait for anything that such a producer has still to do.
/// - A producer touches the ring for a moment after its entry can be seen. Join
///   all producers before the ring is destroyed; having consumed their last
///   entries is not enough.
#ifndef QUORVANE_MPSC_H_
#define QUORVANE_MPSC_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include <quorvane/export.h>
#include <quorvane/module.h>

namespace quorvane {
namespace mpsc {

/// The log module of rings, "quorvane/mpsc".
QV_EXPORT extern Module g_module;

/// Read index <= commit index <= reserve index <= read index + size - 1, counted
/// round 2^32. Thread-safe as said above. A mutex that can't be locked throws
/// std::system_error from every member that waits.
class QV_EXPORT Ring {
 public:
  /// A reserved sequence number plus 1.
  struct Reservation {
    std::uint32_t value;  ///< modulo 2^32
  };

  /// An empty ring of `size` slots, a power of two and at least 2. Any other size
  /// logs an ERROR record through the library's internal module and aborts.
  explicit Ring(unsigned int size);
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;

  /// Whether a ring can have this size. If so, stores it in `out`; otherwise
  /// leaves `out` alone.
  static bool try_use_size(unsigned int size, unsigned int& out);

  /// Reserves the next slot, waiting without a time limit while the ring is full.
  /// Takes a lock only then. Every reservation must be committed.
  Reservation wr_reserve();

  /// The slot to fill for a reservation.
  unsigned int wr_slot(const Reservation& reservation) const {
    return (reservation.value - 1) & mask_;
  }

  /// Publishes a filled slot, spinning until those reserved earlier are
  /// published. By the thread that reserved it, once.
  void wr_commit(const Reservation& reservation);

  /// Locks what the consumer holds while it works.
  std::unique_lock<std::mutex> rd_lock();

  /// Sleeps if the ring is empty. May return without an entry: ask rd_head again.
  /// `lock` is the one of rd_lock(); it is given up during the sleep.
  void rd_wait(std::unique_lock<std::mutex>& lock);

  /// Stores the slot of the oldest entry and is true, or is false when there is
  /// none. The entry stays in the ring.
  bool rd_head(unsigned int& slot);

  /// Takes the oldest entry, which must exist, out of the ring. Wakes the
  /// producers that wait for space if it was the last.
  void rd_advance();

  // End of the public interface.

 private:
  friend class RingProbe;  // a test's, to start near the end of the numbers

  static constexpr std::size_t kLine = 64;  // nobody's writes slow another's reads

  alignas(kLine) std::atomic<std::uint32_t> read_index_{0};
  std::uint32_t known_from_{0};  // the consumer's: with the read index here,
  std::uint32_t known_{0};       // at least so many entries are committed
  alignas(kLine) std::atomic<std::uint32_t> commit_index_{0};
  std::atomic<std::uint32_t> reserve_index_{0};
  alignas(kLine) std::uint32_t size_;
  std::uint32_t mask_;
  alignas(kLine) std::mutex space_mutex_;
  std::condition_variable space_;
  alignas(kLine) std::mutex data_mutex_;
  std::condition_variable data_;
};

}  // namespace mpsc
}  // namespace quorvane

#endif  // QUORVANE_MPSC_H_
