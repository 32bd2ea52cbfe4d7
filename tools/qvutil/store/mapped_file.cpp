#include "qvutil/store/mapped_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {

std::optional<MappedFile> MappedFile::open(const std::string& path) {
  MappedFile file;
  file.path_ = path;
  // A pipe in the place of the file is not waited for.
  file.fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file.fd_ < 0 && errno == ENOENT) {
    return std::nullopt;
  }
  struct stat status {};
  if (file.fd_ < 0 || fstat(file.fd_, &status) != 0) {
    throw failure_of("can't open " + shown(path), errno);
  }
  if (!S_ISREG(status.st_mode)) {
    throw Failure(shown(path) + " is not a regular file");
  }
  file.device_ = status.st_dev;
  file.inode_ = status.st_ino;
  file.size_ = static_cast<std::uint64_t>(status.st_size);
  file.changed_ = status.st_mtim.tv_sec;
  return file;
}

MappedFile::MappedFile(MappedFile&& other) noexcept { *this = std::move(other); }

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
  std::swap(path_, other.path_);
  std::swap(fd_, other.fd_);
  std::swap(device_, other.device_);
  std::swap(inode_, other.inode_);
  std::swap(size_, other.size_);
  std::swap(changed_, other.changed_);
  std::swap(data_, other.data_);
  std::swap(mapped_, other.mapped_);
  return *this;
}

MappedFile::~MappedFile() {
  if (data_ != nullptr) {
    munmap(data_, mapped_);
  }
  if (fd_ >= 0) {
    close(fd_);
  }
}

std::string_view MappedFile::bytes() {
  if (data_ == nullptr && size_ != 0) {
    void* const data = mmap(nullptr, size_, PROT_READ, MAP_SHARED, fd_, 0);
    if (data == MAP_FAILED) {
      throw failure_of("can't map " + shown(path_), errno);
    }
    data_ = data;
    mapped_ = size_;
  }
  return {static_cast<const char*>(data_), size_};
}

std::size_t MappedFile::read(std::uint64_t offset, char* to, std::size_t size) const {
  const ssize_t read = pread(fd_, to, size, static_cast<off_t>(offset));
  return read > 0 ? static_cast<std::size_t>(read) : 0;
}

void MappedFile::limit(std::uint64_t size) { size_ = std::min(size_, size); }

}  // namespace quorvane::tool
