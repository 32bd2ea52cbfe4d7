// Spares a process that has one thread the search for races.
#ifndef TESTS_SUPPORT_ONE_THREAD_H_
#define TESTS_SUPPORT_ONE_THREAD_H_

#ifdef __SANITIZE_THREAD__
extern "C" void __tsan_ignore_thread_begin();
extern "C" void __tsan_ignore_thread_end();
#endif

namespace test {

// While one exists, ThreadSanitizer doesn't record the accesses of this thread, which is the only
// one of its process and so races with none. It must not outlive the thread, nor be alive at
// _exit(2).
class OneThread {
 public:
#ifdef __SANITIZE_THREAD__
  OneThread() { __tsan_ignore_thread_begin(); }
  ~OneThread() { __tsan_ignore_thread_end(); }
#else
  OneThread() {}
  ~OneThread() {}
#endif
  OneThread(const OneThread&) = delete;
  OneThread& operator=(const OneThread&) = delete;
};

}  // namespace test

#endif  // TESTS_SUPPORT_ONE_THREAD_H_
