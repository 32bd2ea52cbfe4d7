// What tells a file from another one that later has its name.
#ifndef QUORVANE_SRC_CACHE_FILE_TRACE_H_
#define QUORVANE_SRC_CACHE_FILE_TRACE_H_

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <string>

namespace quorvane {
namespace cache {

// Inode numbers are used again, so the time of birth counts, too, where the file system knows
// it.
struct FileTrace {
  bool exists = false;  // the rest counts only if it does
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::int64_t birth_seconds = 0;
  std::uint32_t birth_nanoseconds = 0;
  std::uint64_t size = 0;  // in bytes; not compared by is_same_file

  bool is_same_file(const FileTrace& other) const {
    return device == other.device && inode == other.inode && birth_seconds == other.birth_seconds &&
           birth_nanoseconds == other.birth_nanoseconds;
  }

  static FileTrace of(const std::string& path) {
    struct statx status {};
    if (statx(AT_FDCWD, path.c_str(), 0, STATX_INO | STATX_SIZE | STATX_BTIME, &status) != 0) {
      return {};
    }
    const std::uint64_t device = std::uint64_t{status.stx_dev_major} << 32 | status.stx_dev_minor;
    return {
        true,           device, status.stx_ino, status.stx_btime.tv_sec, status.stx_btime.tv_nsec,
        status.stx_size};
  }
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_FILE_TRACE_H_
