#include <quorvane/mmapped_file.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <quorvane/fault.h>
#include <quorvane/log.h>
#include <quorvane/module.h>

#include "src/descriptor.h"

namespace quorvane {
namespace util {
namespace {

constexpr const char* kSource = "util/src/mmapped_file";

const quorvane::Module g_module(kSource);

std::uint64_t round_up_to_pages(std::uint64_t size) {
  const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  return page * ((page + size - 1) / page);
}

}  // namespace

MMappedFile::~MMappedFile() {
  if (is_open()) {
    close();
  }
}

// The numbers are the lines in the records of these checks. Readers of logs search for
// them, so they stay when the code moves.
// Kept: docs/compatibility.md
void MMappedFile::open(const std::string& path, int oflag, unsigned int mode, int prot, int flags) {
  fd_ = descriptor::open_off_standard(path.c_str(), oflag, mode);
  if (!QV_FAULT_EXPECT_AT(g_module, 3, fd_ >= 0, kSource, 20)) {
    fd_ = -1;
    return;
  }
  struct stat s;
  if (!QV_FAULT_EXPECT_AT(g_module, 3, fstat(fd_, &s) == 0, kSource, 27)) {
    // A second record of the failure, at ERROR.
    // Kept: docs/compatibility.md
    QV_LOG(g_module, ERROR, "fstat(%s) failed with error: %s", path.c_str(), strerror(errno));
    ::close(fd_);
    fd_ = -1;
    return;
  }
  size_ = static_cast<std::uint64_t>(s.st_size);
  mmap_size_ = round_up_to_pages(size_);
  data_ = mmap(nullptr, mmap_size_, prot, flags, fd_, 0);
  if (!QV_FAULT_EXPECT_AT(g_module, 3, data_ != MAP_FAILED, kSource, 42)) {
    // A second record of the failure, at DEBUG only.
    // Kept: docs/compatibility.md
    QV_LOG(g_module, DEBUG, "mmap(%s) failed with error: %s", path.c_str(), strerror(errno));
    ::close(fd_);
    fd_ = -1;
    size_ = 0;
    mmap_size_ = 0;
    return;
  }
  QV_LOG(g_module, DEBUG, "Opened and mmapped %s file", path.c_str());
}

void MMappedFile::close() {
  if (!is_open()) {
    return;
  }
  QV_FAULT_EXPECT_AT(g_module, 2, munmap(data_, mmap_size_) == 0, kSource, 66);
  mmap_size_ = 0;
  size_ = 0;
  data_ = MAP_FAILED;
  QV_FAULT_ASSERT_AT(g_module, fd_ >= 0, kSource, 74);
  QV_FAULT_EXPECT_AT(g_module, 2, ::close(fd_) == 0, kSource, 75);
  fd_ = -1;
}

}  // namespace util
}  // namespace quorvane
