#include "src/cache/indexed/index_file.h"

#include <farmhash.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "src/cache/indexed/open_file.h"
#include "src/once.h"

namespace quorvane {
namespace cache {
namespace indexed {
namespace {

std::uint64_t checksum_of(const IndexPage& page) {
  return ::util::Fingerprint64(reinterpret_cast<const char*>(&page), offsetof(IndexPage, checksum));
}

using BootId = std::array<unsigned char, sizeof(IndexPage::boot_id)>;

// Zeros where the kernel doesn't tell: an index then outlives a reboot.
BootId read_boot_id() {
  BootId id{};
  std::array<char, 64> text{};
  const OpenFile file(open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
  const ssize_t size = file.fd() < 0 ? -1 : read(file.fd(), text.data(), text.size());
  if (size > 0) {
    const auto hash = ::util::Fingerprint128(text.data(), static_cast<std::size_t>(size));
    std::memcpy(id.data(), &hash.first, sizeof(hash.first));
    std::memcpy(id.data() + sizeof(hash.first), &hash.second, sizeof(hash.second));
  }
  return id;
}

// Read once: that takes a fifth of the time of opening a store, and no process outlives its
// boot.
const BootId& boot_id() {
  static constinit Once once;
  static constinit BootId id{};
  once.run([] { id = read_boot_id(); });
  return id;
}

// Clears `writable` when the file can only be read.
int open_index(const std::string& path, bool& writable) {
  const int how = O_CLOEXEC | O_NONBLOCK;
  const int fd = open(path.c_str(), (writable ? O_RDWR : O_RDONLY) | how);
  if (fd >= 0 || !writable || (errno != EACCES && errno != EROFS)) {
    return fd;
  }
  writable = false;
  return open(path.c_str(), O_RDONLY | how);
}

// A boot that is unknown, to the writer of the index or to this process, is taken for the
// present one: otherwise processes with and without /proc would rebuild each other's index.
bool is_same_boot(const IndexPage& page, const IndexPage& expected) {
  constexpr unsigned char kUnknown[sizeof(page.boot_id)] = {};
  return std::memcmp(page.boot_id, expected.boot_id, sizeof(page.boot_id)) == 0 ||
         std::memcmp(page.boot_id, kUnknown, sizeof(kUnknown)) == 0 ||
         std::memcmp(expected.boot_id, kUnknown, sizeof(kUnknown)) == 0;
}

bool is_for(const IndexPage& page, const IndexPage& expected) {
  return page.identity == expected.identity && page.device == expected.device &&
         page.inode == expected.inode && is_same_boot(page, expected);
}

bool is_power_of_two(std::uint64_t number) { return number != 0 && (number & (number - 1)) == 0; }

}  // namespace

IndexPage page_for(const DataFile& data, std::uint64_t slots) {
  IndexPage page{};
  page.magic = kIndexMagic;
  page.version = kVersion;
  page.identity = data.identity();
  page.device = data.id().device;
  page.inode = data.id().inode;
  std::memcpy(page.boot_id, boot_id().data(), sizeof(page.boot_id));
  page.slots = slots;
  page.checksum = checksum_of(page);
  return page;
}

Status IndexFile::open(const std::string& path, const DataFile& data, bool may_write) {
  writable_ = may_write;
  const OpenFile file(open_index(path, writable_));
  if (file.fd() < 0) {
    return errno == ENOENT || errno == ENOTDIR ? Status::missing : Status::refused;
  }
  struct stat status;
  if (fstat(file.fd(), &status) != 0) {
    return Status::refused;
  }
  id_ = descriptor::id_of(status);
  const auto size = static_cast<std::uint64_t>(status.st_size);
  if (!S_ISREG(status.st_mode) || size < kIndexPageSize ||
      pread(file.fd(), &page_, sizeof(page_), 0) != static_cast<ssize_t>(sizeof(page_)) ||
      page_.magic != kIndexMagic) {
    return Status::stale;
  }
  if (page_.version != kVersion) {
    return page_.checksum == checksum_of(page_) ? Status::other_version : Status::stale;
  }
  if (page_.checksum != checksum_of(page_) || !is_for(page_, page_for(data, page_.slots)) ||
      !is_power_of_two(page_.slots) ||
      page_.slots != (size - kIndexPageSize) / sizeof(std::uint64_t) ||
      size % sizeof(std::uint64_t) != 0) {
    return Status::stale;
  }
  if (!mapping_.map(file.fd(), size, size, writable_)) {
    return Status::refused;
  }
  return can_be_true(data) ? Status::fits : Status::stale;
}

// Whether the words that change are possible. They have no checksum, so others may be wrong
// without a trace. As they were read from the file: to touch the mapping would cost a fault,
// a fifth of the time of opening.
bool IndexFile::can_be_true(const DataFile& data) const {
  const std::uint64_t covered = page_.covered;
  // The file may have grown since it was opened.
  const bool is_in_file = covered <= data.size_when_opened() || covered <= data.size();
  return is_in_file && covered >= kFirstEntry && covered % kAlignment == 0 && is_in_order() &&
         page_.entries < page_.slots;
}

// A writer may have stored both words while they were read.
bool IndexFile::is_in_order() const {
  if (page_.indexed <= page_.covered) {
    return true;
  }
  const std::uint64_t now_indexed = indexed();  // first: `covered` never falls behind it
  return now_indexed <= covered();
}

void IndexFile::set_slot(std::uint64_t at, std::uint64_t slot) const {
  std::atomic_ref<std::uint64_t>(slots_begin()[at]).store(slot, std::memory_order_release);
}

bool IndexFile::meets_new_pages(std::uint64_t slots) {
  changed_ += slots;
  return changed_ <= mapping_.size() / kIndexPageSize / 2;
}

void IndexFile::populate(std::uint64_t at) const {
  const std::uint64_t page = 1 + at * sizeof(std::uint64_t) / kIndexPageSize;
  // A kernel that doesn't know the request leaves it to the faults.
  madvise(mapping_.data() + page * kIndexPageSize, kIndexPageSize, MADV_POPULATE_WRITE);
}

std::uint64_t IndexFile::load(std::uint64_t IndexPage::*word) const {
  return std::atomic_ref<std::uint64_t>(page()->*word).load(std::memory_order_acquire);
}

void IndexFile::store(std::uint64_t IndexPage::*word, std::uint64_t value) const {
  std::atomic_ref<std::uint64_t>(page()->*word).store(value, std::memory_order_release);
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
