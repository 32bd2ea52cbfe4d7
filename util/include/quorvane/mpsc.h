/// \file
/// The indices of a ring between any number of producers and one consumer.
///
/// A ring holds no entries: it hands out slot numbers, which index an array of the ring's
/// size that its user keeps. A producer reserves a slot, fills it and commits it; the
/// consumer sees the entries in the order in which their slots were reserved. A ring of
/// size N holds at most N - 1 entries.
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
/// Thread-safety: any number of threads may call the wr_ operations, but only one the rd_
/// operations.
/// Fork-safety: none; only the process that made a ring can use it.
///
/// Before you use one:
/// - A commit spins until all earlier reservations are committed. A producer that loses
///   its core between reservation and commit stalls all others, which burn their cores
///   meanwhile: four producers on two busy cores handed over anything from 5 thousand to
///   11 million items a second, and single commits took 60 to 110 ms; one producer alone
///   reaches 25 to 40 million. Keep the time between reservation and commit short, and
///   use no more threads on a ring than there are cores to spare.
/// - A commit on a drained ring takes the consumer's lock to wake it, and so waits for a
///   consumer that is working: up to 6 ms on busy cores. A consumer that holds rd_lock()
///   must never commit to this ring, nor to one whose consumer may be waiting for it:
///   that is a deadlock.
/// - A producer that sleeps on a full ring is woken only when the ring is drained, not
///   when a slot becomes free: with 1024 slots that is 1023 entries later. Drain the ring
///   before you wait for anything that such a producer has yet to do.
/// - A producer still uses the ring for a moment after its entry can be seen. Join all
///   producers before you destroy the ring; it isn't enough to have consumed their last
///   entries.
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

/// The log module "quorvane/mpsc". The ring itself writes nothing through it.
QV_EXPORT extern Module g_module;

/// A ring of slot numbers between any number of producers and one consumer.
///
/// Invariant, modulo 2^32: read index <= commit index <= reserve index <= read index +
/// size - 1.
/// Thread-safety: any number of threads may call the wr_ operations, but only one the rd_
/// operations; join all of them before the ring is destroyed. Fork-safety: none; only the
/// process that made a ring can use it. Not in signal handlers.
///
/// Members that take a lock throw std::system_error if the mutex can't be locked.
class QV_EXPORT Ring {
 public:
  /// A reserved sequence number plus 1.
  struct Reservation {
    std::uint32_t value;  ///< modulo 2^32
  };

  /// An empty ring of `size` slots: a power of two, at least 2. Any other size logs an
  /// ERROR record through the library's internal module and aborts.
  explicit Ring(unsigned int size);
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;

  /// Whether a ring can have this size. Stores such a size in `out`; leaves `out` alone
  /// otherwise. Any thread.
  static bool try_use_size(unsigned int size, unsigned int& out);

  /// Reserves the next slot. Waits without a time limit while the ring is full, and takes
  /// a lock only then. Every reservation must be committed. Any thread.
  Reservation wr_reserve();

  /// The slot to fill for a reservation.
  unsigned int wr_slot(const Reservation& reservation) const {
    return (reservation.value - 1) & mask_;
  }

  /// Publishes a filled slot, after spinning until all slots reserved earlier are
  /// published. Call it once for each reservation, in the thread that reserved.
  void wr_commit(const Reservation& reservation);

  /// Takes the lock that the consumer holds while it works. The consumer only.
  std::unique_lock<std::mutex> rd_lock();

  /// Sleeps if the ring is empty. May return without an entry: ask rd_head again. `lock`
  /// is the result of rd_lock(), held; it is released during the sleep. The consumer only.
  void rd_wait(std::unique_lock<std::mutex>& lock);

  /// Stores the slot of the oldest entry in `slot` and returns true. Without an entry it
  /// leaves `slot` alone and returns false. The entry stays in the ring. The consumer only.
  bool rd_head(unsigned int& slot);

  /// Removes the oldest entry, which must exist, from the ring. If it was the last, wakes
  /// the producers that wait for space. The consumer only.
  void rd_advance();

  // End of the public interface.

 private:
  friend class RingProbe;  // lets a test start near the end of the numbers

  static constexpr std::size_t kLine = 64;  // one cache line each: no false sharing

  alignas(kLine) std::atomic<std::uint32_t> read_index_{0};
  std::uint32_t known_from_{0};  // the consumer's: from this read index on,
  std::uint32_t known_{0};       // at least this many entries are committed
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
