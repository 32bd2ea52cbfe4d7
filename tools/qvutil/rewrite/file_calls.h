// System calls on whole files. Those that throw, throw Failure.
#ifndef TOOLS_QVUTIL_REWRITE_FILE_CALLS_H_
#define TOOLS_QVUTIL_REWRITE_FILE_CALLS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "qvutil/store/cache_files.h"

namespace quorvane::tool {

// A descriptor that closes itself.
class FileDescriptor {
 public:
  // Throws if the file can't be opened.
  FileDescriptor(const std::string& path, int flags);
  ~FileDescriptor();
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  int get() const { return fd_; }

 private:
  int fd_;
};

// False, with errno, unless all bytes are written at this offset.
bool write_all(int fd, std::string_view bytes, std::uint64_t offset);

// The size of a file; nothing if it isn't there. Throws if that can't be told.
std::optional<std::uint64_t> size_of_file(const std::string& path);

// Of all files of a cache.
std::uint64_t bytes_of(const CacheFiles& cache);

// Throws if a file of the cache is a symbolic link: the new file would take the place of the link,
// and the old bytes would stay where it leads. Others may use that file under another lock, so the
// link isn't followed either.
void expect_no_links(const CacheFiles& cache);

// Writes the bytes of one file from an offset to its end into another one, at an offset there.
// They may be the same file.
void copy_bytes(int from, std::uint64_t offset, int to, std::uint64_t to_offset);

// Gives a new file the mode and the owner of an older one, as far as the kernel allows.
void adopt_mode(const std::string& path, const std::string& from);

// The file is on the disk when this returns.
void sync_file(const std::string& path);

// Renames a file in its directory or from one below it. The new name is on the disk when this
// returns.
void put_in_place(const std::string& from, const std::string& to);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_FILE_CALLS_H_
