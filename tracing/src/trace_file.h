// The file that a process writes its trace to.
#ifndef QUORVANE_TRACING_SRC_TRACE_FILE_H_
#define QUORVANE_TRACING_SRC_TRACE_FILE_H_

#include <limits.h>

#include <atomic>
#include <string_view>

#include "src/descriptor.h"

namespace quorvane {
namespace tracing {

// A file has one writer at a time, which holds a lock on it. So a line is never cut in two by
// another process's, and what a failed write or a kill has left of a line can be cut off.
//
// It is opened with the first lines: a process without events leaves no file.
//
// Thread-safety: one thread at a time.
class TraceFile {
 public:
  // The name that the environment gives. A relative one is below the present working directory.
  void set_name(const char* name);

  // Appends whole lines. False, after one record, when that is impossible: write no more. Keeps
  // errno.
  bool write(std::string_view lines);

  // In a child: lets go of the parent's file, whose lock the parent keeps.
  void in_child();

 private:
  enum class Opened { yes, in_use, no };

  bool open();
  Opened open_at(const char* path);
  Opened take(int fd);
  bool make_whole(int fd, off_t size);
  bool append(std::string_view bytes);
  bool expand();
  void refuse(const char* why);

  char name_[PATH_MAX] = {};  // absolute, with its %p; empty if it is too long
  char path_[PATH_MAX] = {};  // of this process
  std::atomic<int> fd_{-1};   // a child of fork lacks the thread that wrote it, and writes it
  bool is_regular_ = false;
  bool is_empty_ = false;  // when it was opened
  descriptor::FileId id_;
  const char* why_ = nullptr;  // it isn't opened, unless errno tells
};

}  // namespace tracing
}  // namespace quorvane

#endif  // QUORVANE_TRACING_SRC_TRACE_FILE_H_
