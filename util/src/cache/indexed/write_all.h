// Writes to a file without stopping short.
#ifndef QUORVANE_SRC_CACHE_INDEXED_WRITE_ALL_H_
#define QUORVANE_SRC_CACHE_INDEXED_WRITE_ALL_H_

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string_view>

namespace quorvane {
namespace cache {
namespace indexed {

// Writes all of `bytes` at `offset`. False with errno when the kernel refuses.
inline bool write_all(int fd, std::string_view bytes, std::uint64_t offset) {
  while (!bytes.empty()) {
    const ssize_t written = pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (written > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
      offset += static_cast<std::uint64_t>(written);
    } else if (written == 0) {
      errno = EIO;
      return false;
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_WRITE_ALL_H_
