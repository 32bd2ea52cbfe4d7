// Which cell of a sharded metric a thread writes.
#ifndef CIRCMETRICS_SRC_THREAD_SLOT_H_
#define CIRCMETRICS_SRC_THREAD_SLOT_H_

namespace circmetrics {

// The slots of a process: each has at most one owner, a thread that may then write
// without an atomic addition, which the next addition waits for. Threads that come when
// all are owned share them. A thread that ends gives its slot to the next one, which
// sees all that it wrote; in a child of fork, only the forking thread goes on owning.
class ThreadSlot {
 public:
  static constexpr unsigned kCount = 8;

  static ThreadSlot of_this_thread() { return ThreadSlot(t_number); }

  // The same, after a first attempt to own one.
  static ThreadSlot obtained() { return t_number != 0 ? of_this_thread() : ThreadSlot(obtain()); }

  bool is_owned() const { return number_ - 1 < kCount; }
  unsigned index() const { return (number_ - 1) % kCount; }

 private:
  friend struct SlotOwners;

  explicit ThreadSlot(unsigned number) : number_(number) {}

  static unsigned obtain();

  // 0 before the first attempt; up to kCount what it owns, above that what it shares.
  // Initial-exec: one load instead of a call. A library loaded later may use so few
  // bytes of it.
  static constinit thread_local unsigned t_number __attribute__((tls_model("initial-exec")));

  unsigned number_;
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_THREAD_SLOT_H_
