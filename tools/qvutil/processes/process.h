// The processes of this machine.
#ifndef TOOLS_QVUTIL_PROCESSES_PROCESS_H_
#define TOOLS_QVUTIL_PROCESSES_PROCESS_H_

#include <sys/types.h>

#include <optional>
#include <string>

#include "qvutil/output/console.h"

namespace quorvane::tool {

struct Process {
  std::string program;  // the name of its file without directories; empty: unknown
  double start = 0;     // in seconds since 1970, up to 10 ms early; 0: unknown
};

// The process with this id, unless it has ended. One that waits for its parent to collect its
// status has ended, and the id of a thread is none of a process.
std::optional<Process> living_process(pid_t pid);

// flock(2) with LOCK_SH or LOCK_EX. Repeats what a signal interrupts; waiting for longer than a
// second is said on standard error. Throws Failure if the kernel refuses.
void lock_file(Console& console, int fd, int operation, const std::string& path);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_PROCESSES_PROCESS_H_
