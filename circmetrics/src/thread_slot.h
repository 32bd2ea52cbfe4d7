// Which cell of a sharded metric a thread writes.
#ifndef CIRCMETRICS_SRC_THREAD_SLOT_H_
#define CIRCMETRICS_SRC_THREAD_SLOT_H_

namespace circmetrics {

// The slots of a process. Each has at most one owner, a thread whose additions aren't
// atomic, so that none waits for the one before. Threads that find all slots owned share
// them. When an owner ends, another thread may take over its slot and sees all that was
// written to it. In a child of fork only the forking thread keeps its slot.
class ThreadSlot {
 public:
  static constexpr unsigned kCount = 8;

  static ThreadSlot of_this_thread() { return ThreadSlot(t_number); }

  // The same, but tries to own a slot at a thread's first call.
  static ThreadSlot obtained() { return t_number != 0 ? of_this_thread() : ThreadSlot(obtain()); }

  bool is_owned() const { return number_ - 1 < kCount; }
  unsigned index() const { return (number_ - 1) % kCount; }

 private:
  friend struct SlotOwners;

  explicit ThreadSlot(unsigned number) : number_(number) {}

  static unsigned obtain();

  // 0 before the first attempt to own a slot; up to kCount an owned slot, above that a
  // shared one. Initial-exec: one load instead of a call. Even a library that is loaded
  // at run time may use a few bytes of such memory.
  static constinit thread_local unsigned t_number __attribute__((tls_model("initial-exec")));

  unsigned number_;
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_THREAD_SLOT_H_
