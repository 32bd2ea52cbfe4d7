#include "src/descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace quorvane {
namespace descriptor {

bool is_open_on(int fd, const FileId& file) {
  struct stat status;
  return fd >= 0 && fstat(fd, &status) == 0 && id_of(status) == file;
}

bool is_at(const char* path, const FileId& file) {
  struct stat status;
  return stat(path, &status) == 0 && id_of(status) == file;
}

int move_off_standard(int fd, int flags) {
  if (fd < 0 || fd > STDERR_FILENO) {
    return fd;
  }
  const int command = (flags & O_CLOEXEC) != 0 ? F_DUPFD_CLOEXEC : F_DUPFD;
  const int moved = fcntl(fd, command, STDERR_FILENO + 1);
  const int error = errno;
  close(fd);
  errno = error;
  return moved;
}

int open_off_standard(const char* path, int flags, mode_t mode) {
  return move_off_standard(open(path, flags, mode), flags);
}

}  // namespace descriptor
}  // namespace quorvane
