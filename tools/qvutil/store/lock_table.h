// Which processes hold which locks.
#ifndef TOOLS_QVUTIL_STORE_LOCK_TABLE_H_
#define TOOLS_QVUTIL_STORE_LOCK_TABLE_H_

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <utility>

namespace quorvane::tool {

// The flock(2) locks of all processes, as /proc/locks has them at one moment.
class LockTable {
 public:
  // Empty if the kernel doesn't tell.
  static LockTable read();

  // Who holds a lock on the file, if it exists and somebody does.
  std::optional<pid_t> holder_of(const std::string& path) const;

 private:
  std::map<std::pair<dev_t, ino_t>, pid_t> holders_;
};

// The name of the program that a process runs; empty if it has ended.
std::string program_of(pid_t pid);

// "process 1234 (reader)"
std::string process_text(pid_t pid);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_LOCK_TABLE_H_
