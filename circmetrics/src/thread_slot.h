// Which cell of a sharded metric a thread writes.
#ifndef CIRCMETRICS_SRC_THREAD_SLOT_H_
#define CIRCMETRICS_SRC_THREAD_SLOT_H_

namespace circmetrics {

// The slots of a process. Each has at most one owner, a thread that writes without atomic
// additions and so doesn't wait for the previous one. Threads that find all slots owned
// share them. When a thread ends, the next one may own its slot and sees all that was
// written. In a child of fork only the forking thread keeps its slot.
class ThreadSlot {
 public:
  static constexpr unsigned kCount = 8;

  static ThreadSlot of_this_thread() { return ThreadSlot(t_number); }

  // The same; at a thread's first call, tries to own a slot.
  static ThreadSlot obtained() { return t_number != 0 ? of_this_thread() : ThreadSlot(obtain()); }

  bool is_owned() const { return number_ - 1 < kCount; }
  unsigned index() const { return (number_ - 1) % kCount; }

 private:
  friend struct SlotOwners;

  explicit ThreadSlot(unsigned number) : number_(number) {}

  static unsigned obtain();

  // 0 before the first attempt to own a slot; up to kCount an owned slot, above that a
  // shared one. Initial-exec: one load instead of a call. A library loaded at run time
  // may use a few bytes of it.
  static constinit thread_local unsigned t_number __attribute__((tls_model("initial-exec")));

  unsigned number_;
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_THREAD_SLOT_H_
