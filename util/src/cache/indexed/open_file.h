// A descriptor that is closed at the end of its scope.
#ifndef QUORVANE_SRC_CACHE_INDEXED_OPEN_FILE_H_
#define QUORVANE_SRC_CACHE_INDEXED_OPEN_FILE_H_

#include <unistd.h>

#include <utility>

namespace quorvane {
namespace cache {
namespace indexed {

class OpenFile {
 public:
  // Takes the result of open(2).
  explicit OpenFile(int fd) : fd_(fd) {}
  ~OpenFile() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  int fd() const { return fd_; }

  // The caller closes it.
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_OPEN_FILE_H_
