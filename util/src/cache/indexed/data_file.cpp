#include "src/cache/indexed/data_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "src/cache/indexed/open_file.h"

namespace quorvane {
namespace cache {
namespace indexed {
namespace {

// Room for growth that costs only addresses.
constexpr std::uint64_t kSmallestMapping = std::uint64_t{64} << 20;

}  // namespace

Status DataFile::open(const std::string& path) {
  path_ = path;
  const OpenFile file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (file.fd() < 0) {
    return errno == ENOENT || errno == ENOTDIR ? Status::missing : Status::refused;
  }
  struct stat status;
  if (fstat(file.fd(), &status) != 0) {
    return Status::refused;
  }
  id_ = descriptor::id_of(status);
  if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
    return Status::refused;
  }
  opened_size_ = static_cast<std::uint64_t>(status.st_size);
  if (opened_size_ < sizeof(header_)) {
    return Status::missing;
  }
  if (pread(file.fd(), &header_, sizeof(header_), 0) != static_cast<ssize_t>(sizeof(header_))) {
    return Status::refused;
  }
  if (header_.magic != kDataMagic) {
    return Status::damaged;
  }
  if (header_.version != kVersion) {
    return Status::other_version;
  }
  const std::uint64_t with_room = std::max(2 * opened_size_, kSmallestMapping);
  return mapping_.map(file.fd(), with_room, opened_size_, false) ? Status::fits : Status::refused;
}

std::uint64_t DataFile::size() const {
  struct stat status;
  return stat(path_.c_str(), &status) == 0 && descriptor::id_of(status) == id_
             ? static_cast<std::uint64_t>(status.st_size)
             : 0;
}

bool DataFile::may_begin_at(std::uint64_t offset, std::uint64_t end) const {
  return offset >= kFirstEntry && offset % kAlignment == 0 && offset < end &&
         end <= mapping_.size();
}

std::optional<Entry> DataFile::entry_at(std::uint64_t offset, std::uint64_t end) const {
  return may_begin_at(offset, end) ? Entry::at(mapping_.data() + offset, end - offset)
                                   : std::nullopt;
}

std::optional<EntryHeader> DataFile::header_at(std::uint64_t offset, std::uint64_t end) const {
  return may_begin_at(offset, end) ? Entry::header_at(mapping_.data() + offset, end - offset)
                                   : std::nullopt;
}

void DataFile::prefetch(std::uint64_t offset, std::uint64_t size) const {
  if (offset < mapping_.size()) {
    const std::uint64_t page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    const std::uint64_t from = offset / page * page;
    madvise(mapping_.data() + from, std::min(offset + size, mapping_.size()) - from, MADV_WILLNEED);
  }
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
