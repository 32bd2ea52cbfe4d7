#include "src/cache/indexed/entry_reader.h"

#include <unistd.h>

namespace quorvane {
namespace cache {
namespace indexed {
namespace {

// The kernel maps 64 KiB or more around a page that is touched.
constexpr std::uint64_t kSizePerRead = std::uint64_t{16} << 10;

}  // namespace

void EntryReader::take(int fd, const descriptor::FileId& id, std::uint64_t size) {
  id_ = id;
  left_.store(size / kSizePerRead, std::memory_order_relaxed);
  fd_.store(fd, std::memory_order_relaxed);
}

// ThreadSanitizer doesn't know that a file's bytes are those of its mapping, and would see
// nothing of the order in which writers and readers touch them.
std::size_t EntryReader::read([[maybe_unused]] std::uint64_t offset,
                              [[maybe_unused]] EntryBuffer& buffer) const {
#ifdef __SANITIZE_THREAD__
  return 0;
#else
  const int fd = fd_.load(std::memory_order_relaxed);
  const std::uint64_t left = left_.load(std::memory_order_relaxed);
  if (fd < 0 || left == 0) {
    return 0;
  }
  left_.store(left - 1, std::memory_order_relaxed);
  const ssize_t size = pread(fd, buffer.data(), buffer.size(), static_cast<off_t>(offset));
  return size < 0 ? 0 : static_cast<std::size_t>(size);
#endif
}

void EntryReader::close() {
  const int fd = fd_.exchange(-1, std::memory_order_relaxed);
  if (descriptor::is_open_on(fd, id_)) {
    ::close(fd);
  }
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
