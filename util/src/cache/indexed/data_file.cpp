#include "src/cache/indexed/data_file.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>

#include "src/cache/indexed/open_file.h"
#include "src/fork_guard.h"

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

int open_data(const std::string& path) {
  return descriptor::open_off_standard(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
}

// Of all data files: each is mapped once.
constinit std::mutex g_map_mutex;

[[maybe_unused]] const bool g_is_guarded = (fork_guard::add(g_map_mutex), true);

}  // namespace

Status DataFile::open(const std::string& path, const std::string& later_path) {
  path_ = path;
  later_path_ = later_path;
  OpenFile file(open_data(path));
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
  reader_.take(file.release(), id_, opened_size_);
  is_open_ = true;
  return Status::fits;
}

const Mapping* DataFile::map() const {
  const fork_guard::Lock lock(g_map_mutex);
  if (!is_mapped_) {
    if (is_retired_ || !try_map()) {
      map_error_ = is_retired_ ? ESTALE : errno;
      errno = map_error_;
      return nullptr;
    }
    map_error_ = 0;
    is_mapped_.store(true, std::memory_order_release);
  }
  return &mapping_;
}

// Through the descriptor of the reader. If the program has closed that, opens the file again.
bool DataFile::try_map() const {
  bool is_done = try_map_through(reader_.fd());
  for (const std::string* path : {&path_, &later_path_}) {
    if (is_done || errno != ESTALE) {
      break;
    }
    const OpenFile file(open_data(*path));
    is_done = try_map_through(file.fd());
  }
  return is_done;
}

// Looks at the descriptor before and after: the program may close it meanwhile, and open a file of
// its own under the number. ESTALE: the descriptor isn't the file's.
bool DataFile::try_map_through(int fd) const {
  if (!descriptor::is_open_on(fd, id_)) {
    errno = ESTALE;
    return false;
  }
  const std::uint64_t with_room =
      is_on_overlay(fd) ? opened_size_ : std::max(2 * opened_size_, kSmallestMapping);
  const bool is_done = mapping_.map(fd, with_room, opened_size_, false);
  const int error = errno;
  if (!descriptor::is_open_on(fd, id_)) {
    mapping_.unmap();
    errno = ESTALE;
    return false;
  }
  errno = error;
  return is_done;
}

// Nobody maps the file from then on: the number of the reader's descriptor may soon be that of
// another file.
void DataFile::retire() {
  {
    const fork_guard::Lock lock(g_map_mutex);
    is_retired_ = true;
  }
  reader_.close();
  if (is_mapped_) {
    mapping_.empty();
  }
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

const unsigned char* DataFile::bytes_at(std::uint64_t offset, std::uint64_t end) const {
  const Mapping* const mapped = mapping();
  const bool may_begin = mapped != nullptr && offset >= kFirstEntry && offset % kAlignment == 0 &&
                         offset < end && end <= mapped->size();
  return may_begin ? mapped->data() + offset : nullptr;
}

std::optional<Entry> DataFile::entry_at(std::uint64_t offset, std::uint64_t end) const {
  const unsigned char* const bytes = bytes_at(offset, end);
  return bytes != nullptr ? Entry::at(bytes, end - offset) : std::nullopt;
}

std::optional<Entry> DataFile::start_at(std::uint64_t offset, std::uint64_t end) const {
  const unsigned char* const bytes = bytes_at(offset, end);
  return bytes != nullptr ? Entry::start_at(bytes, end - offset) : std::nullopt;
}

std::optional<EntryHeader> DataFile::header_at(std::uint64_t offset, std::uint64_t end) const {
  const unsigned char* const bytes = bytes_at(offset, end);
  return bytes != nullptr ? Entry::header_at(bytes, end - offset) : std::nullopt;
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
  const Mapping* const mapped = mapping();
  if (mapped != nullptr && offset < mapped->size()) {
    const std::uint64_t page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    const std::uint64_t from = offset / page * page;
    madvise(mapped->data() + from, std::min(offset + size, mapped->size()) - from, MADV_WILLNEED);
  }
}

void DataFile::note_written([[maybe_unused]] std::uint64_t offset,
                            [[maybe_unused]] std::uint64_t size) const {
#ifdef __SANITIZE_THREAD__
  const Mapping* const mapped = mapping();
  if (mapped != nullptr && offset < mapped->size()) {
    __tsan_write_range(mapped->data() + offset, std::min(size, mapped->size() - offset));
  }
#endif
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
