// The whole run: walk, digest, report.
#ifndef FINGERPRINT_RUN_H_
#define FINGERPRINT_RUN_H_

#include "fingerprint/options.h"

namespace fingerprint {

// Returns the exit status.
int run(const Options& options);

}  // namespace fingerprint

#endif  // FINGERPRINT_RUN_H_
