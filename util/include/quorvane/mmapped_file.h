/// \file
/// A whole file in memory, with its descriptor.
///
/// Failures are reported by fault checks and leave the object closed; nothing throws.
/// Thread-safety: one thread at a time. Fork-safety: a child may read and close its copy.
#ifndef QUORVANE_MMAPPED_FILE_H_
#define QUORVANE_MMAPPED_FILE_H_

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include <quorvane/export.h>

namespace quorvane {
namespace util {

/// An open file and its mapping.
///
/// Invariant: it has both a descriptor and a mapping, or neither. It owns them.
/// Thread-safety: one thread at a time, though several may read the bytes. Fork-safety: a
/// child may read and close its copy; a shared mapping stays shared with the parent.
/// Records and checks go through the module "util/src/mmapped_file".
class QV_EXPORT MMappedFile {
 public:
  MMappedFile() = default;
  MMappedFile(const MMappedFile&) = delete;
  MMappedFile& operator=(const MMappedFile&) = delete;

  /// Closes an open object, as close() does.
  ~MMappedFile();

  /// Opens `path` with open(2)'s `oflag` and `mode` and maps all of it with mmap(2)'s
  /// `prot` and `flags`. Ask is_open() for the result. A file that is missing, empty or
  /// refused by the kernel leaves the object closed, after a severity 3 check; the reason
  /// is logged at ERROR when fstat fails and at DEBUG when mmap fails. A success is logged
  /// at DEBUG. The descriptor is never 0, 1 or 2; without O_CLOEXEC in `oflag` it
  /// survives an exec. Call it on a closed object only; an open one would leak.
  void open(const std::string& path, int oflag, unsigned int mode, int prot, int flags);

  /// Whether it has a descriptor and a mapping.
  bool is_open() const { return fd_ >= 0 && data_ != MAP_FAILED; }

  /// Unmaps and closes the file; does nothing when closed. If the kernel refuses either,
  /// a severity 2 check reports it, and the object is closed all the same.
  void close();

  ///@{ The first byte; MAP_FAILED when closed. The bytes are valid until close(). If the
  /// file is truncated meanwhile, reading a page beyond its new end raises SIGBUS.
  std::uint8_t* data() { return static_cast<std::uint8_t*>(data_); }
  const std::uint8_t* data() const { return static_cast<const std::uint8_t*>(data_); }
  ///@}

  /// The file's size in bytes when it was opened; 0 when closed.
  std::size_t size() const { return size_; }

 private:
  int fd_ = -1;
  void* data_ = MAP_FAILED;
  std::uint64_t size_ = 0;
  std::uint64_t mmap_size_ = 0;  // size_ rounded up to whole pages
};

}  // namespace util
}  // namespace quorvane

#endif  // QUORVANE_MMAPPED_FILE_H_
