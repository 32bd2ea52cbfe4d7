// The note that an append leaves in the lock file while it runs.
#ifndef TOOLS_QVUTIL_STORE_LOCK_NOTE_H_
#define TOOLS_QVUTIL_STORE_LOCK_NOTE_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane::tool {

// A file as it was before the append.
struct NotedFile {
  std::string name;  // in the directory of the lock file
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  bool existed = false;
};

// The files of a note; none if the content of the lock file is no note.
std::vector<NotedFile> noted_files(std::string_view content);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_LOCK_NOTE_H_
