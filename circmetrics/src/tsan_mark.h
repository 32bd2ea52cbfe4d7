// Shows ThreadSanitizer the writes that are made in assembly, which it can't see.
#ifndef CIRCMETRICS_SRC_TSAN_MARK_H_
#define CIRCMETRICS_SRC_TSAN_MARK_H_

namespace circmetrics {

// Goes next to a variable that is written in assembly: call set() at each write. Does
// nothing in other builds.
class TsanMark {
 public:
#ifdef __SANITIZE_THREAD__
  void set() {
    if (!is_in_child_) {
      is_set_ = true;
    }
  }

  // Ends the checks in a child: threads that exist only in its parent would count as running.
  static void stop_in_child() { is_in_child_ = true; }

 private:
  bool is_set_ = false;
  static inline bool is_in_child_ = false;
#else
  void set() {}
  static void stop_in_child() {}
#endif
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_TSAN_MARK_H_
