// qvutil pids: who of a set of processes lives.
#ifndef TOOLS_QVUTIL_COMMANDS_PIDS_H_
#define TOOLS_QVUTIL_COMMANDS_PIDS_H_

#include <string>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

struct PidsOptions {
  std::string path;    // of a process id set, or of a directory with pid files
  bool prune = false;  // remove those that are dead
};

// Found: some are dead, and were not removed.
Outcome pids(Console& console, const PidsOptions& options);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_COMMANDS_PIDS_H_
