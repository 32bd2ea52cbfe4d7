/// \file
/// A whole file in memory, with its descriptor.
///
/// Open exactly while it has both a descriptor and a mapping. Failures are
/// reported through the fault checks and leave the object closed; nothing throws.
/// Thread-safety: one thread at a time. Fork-safety: a child may read and close
/// its copy.
#ifndef QUORVANE_MMAPPED_FILE_H_
#define QUORVANE_MMAPPED_FILE_H_

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include <quorvane/export.h>

namespace quorvane {
namespace util {

/// An open file and its mapping. Invariant: it has both, or neither.
class QV_EXPORT MMappedFile {
 public:
  MMappedFile() = default;
  MMappedFile(const MMappedFile&) = delete;
  MMappedFile& operator=(const MMappedFile&) = delete;

  /// Closes what is open.
  ~MMappedFile();

  /// Opens `path` with open(2)'s `oflag` and `mode` and maps all of it with
  /// mmap(2)'s `prot` and `flags`. Ask is_open() for the result: a missing or an
  /// empty file leaves the object closed, after a severity 3 check. The descriptor is
  /// never 0, 1 or 2. Close an open object first.
  void open(const std::string& path, int oflag, unsigned int mode, int prot, int flags);

  /// Whether there are a descriptor and a mapping.
  bool is_open() const { return fd_ >= 0 && data_ != MAP_FAILED; }

  /// Unmaps and closes; does nothing when closed. Refusals of the kernel are
  /// severity 2 checks.
  void close();

  ///@{ The first byte; MAP_FAILED when closed.
  std::uint8_t* data() { return static_cast<std::uint8_t*>(data_); }
  const std::uint8_t* data() const { return static_cast<const std::uint8_t*>(data_); }
  ///@}

  /// The file's size in bytes when it was opened; 0 when closed.
  std::size_t size() const { return size_; }

 private:
  int fd_ = -1;
  void* data_ = MAP_FAILED;
  std::uint64_t size_ = 0;
  std::uint64_t mmap_size_ = 0;  // size_ in whole pages
};

}  // namespace util
}  // namespace quorvane

#endif  // QUORVANE_MMAPPED_FILE_H_
