// Why a cache could not do what it was asked.
#ifndef QUORVANE_SRC_CACHE_FAILURE_H_
#define QUORVANE_SRC_CACHE_FAILURE_H_

#include <cerrno>
#include <new>

namespace quorvane {
namespace cache {

// A cache, or its store, catches and logs every exception, so the result alone doesn't tell a lack
// of memory from anything else. The cause is noted here, for each thread, as a value of errno. Who
// wants to know it clears it before the operation. Initial-exec: see log.cpp.
class Failure {
 public:
  static void clear() { t_error = 0; }
  static int last() { return t_error; }
  static void note(int error) { t_error = error; }
  static void note_unless_noted(int error) { t_error = t_error != 0 ? t_error : error; }

  // Notes the exception that is being handled.
  static void note_exception() {
    try {
      throw;
    } catch (const std::bad_alloc&) {
      note(ENOMEM);
    } catch (...) {
      note(EIO);
    }
  }

 private:
  __attribute__((tls_model("initial-exec"))) static inline constinit thread_local int t_error = 0;
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_FAILURE_H_
