// SIGINT and SIGTERM as the wish to end.
#ifndef TOOLS_QVUTIL_REPORT_INTERRUPTED_H_
#define TOOLS_QVUTIL_REPORT_INTERRUPTED_H_

#include <csignal>

namespace quorvane::tool {

// While one lives, these signals end no process and interrupt its system calls. For one thread,
// one at a time.
class Interrupted {
 public:
  Interrupted();
  ~Interrupted();
  Interrupted(const Interrupted&) = delete;
  Interrupted& operator=(const Interrupted&) = delete;

  static bool is_set();

  // Sleeps. A signal cuts it short.
  static void pause(int milliseconds);

 private:
  struct sigaction int_ {};
  struct sigaction term_ {};
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_INTERRUPTED_H_
