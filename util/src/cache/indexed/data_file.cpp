#include "src/cache/indexed/data_file.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "src/cache/indexed/open_file.h"

#ifdef __SANITIZE_THREAD__
extern "C" void __tsan_write_range(void* address, unsigned long size);
#endif

namespace quorvane {
namespace cache {
namespace indexed {
namespace {

// Room for growth that costs only addresses.
constexpr std::uint64_t kSmallestMapping = std::uint64_t{64} << 20;

// On an overlay the first writer gets a copy of the file, which then has the name and the
// inode number. The file that is mapped here never grows, and a read beyond its end would end
// the process.
bool is_on_overlay(int fd) {
  struct statfs file_system;
  return fstatfs(fd, &file_system) != 0 || file_system.f_type == OVERLAYFS_SUPER_MAGIC;
}

}  // namespace

Status DataFile::open(const std::string& path, const std::string& later_path) {
  path_ = path;
  later_path_ = later_path;
  OpenFile file(descriptor::open_off_standard(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
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
  const std::uint64_t with_room =
      is_on_overlay(file.fd()) ? opened_size_ : std::max(2 * opened_size_, kSmallestMapping);
  if (!mapping_.map(file.fd(), with_room, opened_size_, false)) {
    return Status::refused;
  }
  reader_.take(file.release(), id_, opened_size_);
  return Status::fits;
}

std::uint64_t DataFile::size() const {
  for (const std::string* path : {&path_, &later_path_}) {
    struct stat status;
    if (stat(path->c_str(), &status) == 0 && descriptor::id_of(status) == id_) {
      return static_cast<std::uint64_t>(status.st_size);
    }
  }
  return 0;
}

bool DataFile::may_begin_at(std::uint64_t offset, std::uint64_t end) const {
  return offset >= kFirstEntry && offset % kAlignment == 0 && offset < end &&
         end <= mapping_.size();
}

std::optional<Entry> DataFile::entry_at(std::uint64_t offset, std::uint64_t end) const {
  return may_begin_at(offset, end) ? Entry::at(mapping_.data() + offset, end - offset)
                                   : std::nullopt;
}

std::optional<Entry> DataFile::start_at(std::uint64_t offset, std::uint64_t end) const {
  return may_begin_at(offset, end) ? Entry::start_at(mapping_.data() + offset, end - offset)
                                   : std::nullopt;
}

std::optional<EntryHeader> DataFile::header_at(std::uint64_t offset, std::uint64_t end) const {
  return may_begin_at(offset, end) ? Entry::header_at(mapping_.data() + offset, end - offset)
                                   : std::nullopt;
}

void DataFile::give_owner_to(int fd) const {
  struct stat status;
  if (stat(path_.c_str(), &status) == 0) {
    // Only root may give a file away. Without that, the group and others may still use it.
    [[maybe_unused]] const int owned = fchown(fd, status.st_uid, status.st_gid);
    fchmod(fd, status.st_mode & 0777);
  }
}

void DataFile::prefetch(std::uint64_t offset, std::uint64_t size) const {
  if (offset < mapping_.size()) {
    const std::uint64_t page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    const std::uint64_t from = offset / page * page;
    madvise(mapping_.data() + from, std::min(offset + size, mapping_.size()) - from, MADV_WILLNEED);
  }
}

void DataFile::note_written([[maybe_unused]] std::uint64_t offset,
                            [[maybe_unused]] std::uint64_t size) const {
#ifdef __SANITIZE_THREAD__
  if (offset < mapping_.size()) {
    __tsan_write_range(mapping_.data() + offset, std::min(size, mapping_.size() - offset));
  }
#endif
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
