// The processes that a process id set or a directory with pid files names.
#ifndef TOOLS_QVUTIL_PROCESSES_MEMBERS_H_
#define TOOLS_QVUTIL_PROCESSES_MEMBERS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qvutil/output/console.h"
#include "qvutil/processes/process.h"

namespace quorvane::tool {

struct Member {
  std::int32_t pid = 0;
  std::optional<Process> process;  // the one with this id, if it lives
  bool is_reused = false;          // it began after its pid file was written: it is another one
  bool is_removed = false;

  bool lives() const { return process && !is_reused; }
};

// The members of the set in the file `path`, ascending. With `prune` those that are dead are
// removed. An empty file is a set without members, and stays empty. Throws Failure if the file
// can't be opened, or is no set.
std::vector<Member> members_of_set(Console& console, const std::string& path, bool prune);

// The same for pid files: qv.PID in the directory `path`, or with `path` as the beginning of
// their names. Throws Failure if the directory can't be read.
std::vector<Member> members_of_files(const std::string& path, bool prune);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_PROCESSES_MEMBERS_H_
