// Signals that cut the system calls of one thread of this process short.
#ifndef TESTS_SUPPORT_INTERRUPT_H_
#define TESTS_SUPPORT_INTERRUPT_H_

#include <sys/types.h>

namespace test {

// From now on a system call that SIGUSR1 meets fails with EINTR where it can.
void let_signals_interrupt();

// Returns once the thread has been given the signal. Its handler may run later:
// ThreadSanitizer puts it off.
void interrupt(pid_t tid);

}  // namespace test

#endif  // TESTS_SUPPORT_INTERRUPT_H_
