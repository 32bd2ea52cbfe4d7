// Interrupts the system calls of one thread of this process with a signal.
#ifndef TESTS_SUPPORT_INTERRUPT_H_
#define TESTS_SUPPORT_INTERRUPT_H_

#include <sys/types.h>

namespace test {

// From now on SIGUSR1 makes any system call that can be interrupted fail with EINTR.
void let_signals_interrupt();

// Sends the signal to the thread and returns once it is delivered. The handler may run
// later, since ThreadSanitizer defers it.
void interrupt(pid_t tid);

}  // namespace test

#endif  // TESTS_SUPPORT_INTERRUPT_H_
