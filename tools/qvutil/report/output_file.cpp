#include "qvutil/report/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "qvutil/cli/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

// Closes the descriptor. Returns errno, or 0.
int write_and_close(int fd, std::string_view bytes) {
  int error = 0;
  while (error == 0 && !bytes.empty()) {
    const ssize_t size = write(fd, bytes.data(), bytes.size());
    if (size >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(size));
    } else if (errno != EINTR) {
      error = errno;
    }
  }
  return close(fd) == -1 && error == 0 ? errno : error;
}

bool is_something_else(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

}  // namespace

void write_output(const std::string& path, std::string_view bytes) {
  const bool in_place = is_something_else(path);
  const std::string file = in_place ? path : path + ".new." + std::to_string(getpid());
  const int flags = O_WRONLY | O_CLOEXEC | O_NOCTTY | (in_place ? 0 : O_CREAT | O_EXCL);
  const int fd = open(file.c_str(), flags, 0666);
  if (fd == -1) {
    throw failure_of("can't write " + shown(path), errno);
  }
  int error = write_and_close(fd, bytes);
  if (!in_place && error == 0 && rename(file.c_str(), path.c_str()) == -1) {
    error = errno;
  }
  if (error != 0) {
    if (!in_place) {
      unlink(file.c_str());
    }
    throw failure_of("can't write " + shown(path), error);
  }
}

}  // namespace quorvane::tool
