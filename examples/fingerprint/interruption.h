// Signals that ask the program to end.
#ifndef FINGERPRINT_INTERRUPTION_H_
#define FINGERPRINT_INTERRUPTION_H_

namespace fingerprint {

// From now on the first SIGINT, SIGTERM or SIGHUP is only remembered, in this process and
// in children forked later, so that a worker can end between two files and not in the
// middle of an append. A second signal of the same kind ends the process at once. Ignored
// signals stay ignored.
void catch_interruptions();

// The signal that arrived, or 0.
int interruption();

}  // namespace fingerprint

#endif  // FINGERPRINT_INTERRUPTION_H_
