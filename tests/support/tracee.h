// A child that runs a function while its parent stops it again and again.
#ifndef TESTS_SUPPORT_TRACEE_H_
#define TESTS_SUPPORT_TRACEE_H_

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace test {

// The child waits in front of the function until it is resumed. It is killed with the object.
class Tracee {
 public:
  // What resume() returns at a system call's stop.
  static constexpr int kAtCall = SIGTRAP | 0x80;

  template <typename Body>
  explicit Tracee(const Body& body) : pid_(fork()) {
    if (pid_ == 0) {
      ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      raise(SIGSTOP);
      body();
      _exit(0);
    }
    await();
    ptrace(PTRACE_SETOPTIONS, pid_, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
  }
  ~Tracee() { kill(); }
  Tracee(const Tracee&) = delete;
  Tracee& operator=(const Tracee&) = delete;

  pid_t pid() const { return pid_; }
  int status() const { return status_; }  // as waitpid(2) gave it last

  // Lets the child run until its next stop. Returns the signal that stopped it, or 0 when it
  // has ended.
  int resume(__ptrace_request how, int signal = 0) {
    ptrace(how, pid_, nullptr, static_cast<long>(signal));
    return await();
  }

  void kill() {
    if (!is_dead_) {
      ::kill(pid_, SIGKILL);
      await();
    }
  }

 private:
  int await() {
    waitpid(pid_, &status_, 0);
    is_dead_ = !WIFSTOPPED(status_);
    return is_dead_ ? 0 : WSTOPSIG(status_);
  }

  pid_t pid_;
  int status_ = 0;
  bool is_dead_ = false;
};

}  // namespace test

#endif  // TESTS_SUPPORT_TRACEE_H_
