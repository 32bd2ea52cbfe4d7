// The file behind the log's descriptor.
#ifndef QUORVANE_SRC_LOG_FILE_H_
#define QUORVANE_SRC_LOG_FILE_H_

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "src/descriptor.h"

namespace quorvane {
namespace logging {

// Needs no destructor: threads log, and signal handlers reopen the file, until the process ends.
class LogFile {
 public:
  // Opens the file and keeps its absolute path, so that a later chdir doesn't matter. Returns
  // the descriptor, or -1 with errno. One thread.
  int open(const std::string& path, int flags, mode_t mode);

  // Does what qv_log_reopen does. Any thread, a signal handler, a child of fork.
  int reopen();

 private:
  bool begin();
  bool replace();
  bool replace_by(int fresh);

  std::atomic<int> fd_{-1};
  const std::string* path_ = nullptr;  // null when unknown
  int flags_ = 0;
  mode_t mode_ = 0;

  // The descriptor is open on one of the two files at any moment, a fork's included.
  descriptor::FileId current_;
  descriptor::FileId next_;

  std::atomic<bool> is_wanted_{false};
  std::atomic<std::uint64_t> reopener_{0};  // the process with a thread in reopen; 0: none
};

}  // namespace logging
}  // namespace quorvane

#endif  // QUORVANE_SRC_LOG_FILE_H_
