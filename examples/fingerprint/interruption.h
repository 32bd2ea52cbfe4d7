// Signals that ask the program to end.
#ifndef FINGERPRINT_INTERRUPTION_H_
#define FINGERPRINT_INTERRUPTION_H_

namespace fingerprint {

// From now on a first SIGINT, SIGTERM or SIGHUP is only remembered, here and in
// processes that are forked later, so that a worker can end between two files
// and never in the middle of the store. A second one of the same kind ends the
// process at once. A signal that is ignored stays so.
void catch_interruptions();

// The signal that came, or 0.
int interruption();

}  // namespace fingerprint

#endif  // FINGERPRINT_INTERRUPTION_H_
