// Children that a test forks and waits for.
#ifndef TESTS_SUPPORT_PROCESSES_H_
#define TESTS_SUPPORT_PROCESSES_H_

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace test {

// Added to the number of a signal in what wait_for returns.
constexpr int kKilledBy = 1000;

// Waits until `child` has ended. Returns its exit status, kKilledBy plus the signal that
// killed it, or -1 if it is not a child of this process.
inline int wait_for(pid_t child) {
  int status = 0;
  pid_t waited;
  do {
    waited = waitpid(child, &status, 0);
  } while (waited == -1 && errno == EINTR);
  if (waited != child) {
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : kKilledBy + WTERMSIG(status);
}

// Forks. The child runs `body` and exits with its result, without exit handlers.
template <typename Body>
pid_t in_child(Body body) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(body());
  }
  return child;
}

}  // namespace test

#endif  // TESTS_SUPPORT_PROCESSES_H_
