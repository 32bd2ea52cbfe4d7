#include "qvutil/store/lock_table.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "qvutil/output/text.h"

namespace quorvane::tool {

LockTable LockTable::read() {
  LockTable table;
  std::ifstream locks("/proc/locks");
  // "1: FLOCK  ADVISORY  WRITE 1234 08:01:5678 0 EOF"; a waiter's line has "->" after the colon.
  for (std::string line; std::getline(locks, line);) {
    int pid = 0;
    unsigned major_number = 0;
    unsigned minor_number = 0;
    unsigned long inode = 0;
    if (std::sscanf(line.c_str(), "%*s FLOCK %*s %*s %d %x:%x:%lu", &pid, &major_number,
                    &minor_number, &inode) == 4 &&
        pid > 0) {
      table.holders_.emplace(std::pair(makedev(major_number, minor_number), inode), pid);
    }
  }
  return table;
}

std::optional<pid_t> LockTable::holder_of(const std::string& path) const {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    return std::nullopt;
  }
  const auto found = holders_.find({status.st_dev, status.st_ino});
  return found == holders_.end() ? std::nullopt : std::optional(found->second);
}

std::string program_of(pid_t pid) {
  std::string name;
  std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), name);
  return name;
}

std::string process_text(pid_t pid) {
  const std::string program = program_of(pid);
  return "process " + std::to_string(pid) + (program.empty() ? "" : " (" + shown(program) + ")");
}

}  // namespace quorvane::tool
