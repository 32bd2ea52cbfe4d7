#include "src/password_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "src/descriptor.h"
#include "src/records.h"

namespace quorvane {
namespace remote {
namespace {

constexpr std::size_t kLongest = 4096;

class File {
 public:
  // O_NONBLOCK: without it, to open a FIFO waits for a writer.
  explicit File(const char* path)
      : fd_(descriptor::open_off_standard(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
  ~File() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  int fd() const { return fd_; }

 private:
  const int fd_;
};

void warn_of_readers(const std::string& path, mode_t mode) {
  static std::atomic<bool> has_warned{false};
  if ((mode & S_IROTH) != 0 && !has_warned.exchange(true, std::memory_order_relaxed)) {
    QV_LOG(g_module, WARN, "Other users can read the password file %s", path.c_str());
  }
}

// Reads until `bytes` is full or the file ends. False with errno.
bool read_begin(int fd, std::string& bytes) {
  std::size_t size = 0;
  while (size < bytes.size()) {
    const ssize_t got = read(fd, bytes.data() + size, bytes.size() - size);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      return false;
    }
    if (got == 0) {
      break;
    }
    size += static_cast<std::size_t>(got);
  }
  bytes.resize(size);
  return true;
}

}  // namespace

std::optional<std::string> read_password(const std::string& path, std::string& error) {
  const auto refuse = [&](const char* why) {
    error = "the password file " + path + ": " + why;
    return std::nullopt;
  };
  const File file(path.c_str());
  struct stat status;
  if (file.fd() < 0 || fstat(file.fd(), &status) != 0) {
    return refuse(std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    return refuse("not a regular file");
  }
  warn_of_readers(path, status.st_mode);
  std::string line(kLongest + 1, '\0');
  if (!read_begin(file.fd(), line)) {
    return refuse(std::strerror(errno));
  }
  line.resize(std::min(line.find('\n'), line.size()));
  if (line.empty()) {
    return refuse("its first line is empty");
  }
  if (line.size() > kLongest) {
    return refuse("its first line is longer than 4096 bytes");
  }
  return line;
}

}  // namespace remote
}  // namespace quorvane
