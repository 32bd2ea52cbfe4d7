#include "src/cache/indexed/data_writer.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "src/cache/indexed/format.h"
#include "src/cache/indexed/write_all.h"

namespace quorvane {
namespace cache {
namespace indexed {

DataWriter::~DataWriter() {
  if (fd_ >= 0) {
    close(fd_);
  }
}

bool DataWriter::open(const std::string& path, const descriptor::FileId& id) {
  fd_ = descriptor::open_off_standard(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
  if (fd_ >= 0 && !descriptor::is_open_on(fd_, id)) {
    errno = ESTALE;
    return false;
  }
  return fd_ >= 0;
}

bool DataWriter::create(const std::string& path) {
  DataWriter file;
  file.fd_ =
      descriptor::open_off_standard(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0666);
  if (file.fd_ < 0 || write_header(file.fd_)) {
    return file.fd_ >= 0;
  }
  const int error = errno;
  file.cut(0);  // otherwise the next process finds it too short
  errno = error;
  return false;
}

bool DataWriter::write_header(int fd) {
  DataHeader header{kDataMagic, kVersion, 0, {}};
  const std::string_view bytes(reinterpret_cast<const char*>(&header), sizeof(header));
  return getrandom(&header.identity, sizeof(header.identity), 0) == sizeof(header.identity) &&
         write_all(fd, bytes, 0);
}

std::uint64_t DataWriter::size() const {
  struct stat status;
  return fstat(fd_, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

bool DataWriter::append(std::uint64_t offset, const std::string& bytes) const {
  if (write_all(fd_, bytes, offset)) {
    return true;
  }
  const int error = errno;
  cut(offset);  // otherwise the next append cuts it, since nothing covers what was written
  errno = error;
  return false;
}

bool DataWriter::cut(std::uint64_t size) const {
  return ftruncate(fd_, static_cast<off_t>(size)) == 0;
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
