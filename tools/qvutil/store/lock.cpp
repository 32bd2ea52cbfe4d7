#include "qvutil/store/lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <future>
#include <string>
#include <utility>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"
#include "qvutil/store/lock_table.h"

namespace quorvane::tool {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kLargestNote = 4096;

Failure refused(const std::string& path) {
  return failure_of("can't take the lock " + shown(path), errno);
}

int open_lock_file(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0 && errno != ENOENT) {
    throw refused(path);
  }
  return fd;
}

bool is_at(int fd, const std::string& path) {
  struct stat opened {};
  struct stat named {};
  return fstat(fd, &opened) == 0 && stat(path.c_str(), &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

void say_waiting(Console& console, const CacheFiles& files) {
  const std::optional<pid_t> holder = holder_of(files);
  console.err() << "Waiting for the lock " << shown(files.lock_file())
                << (holder ? ", held by " + process_text(*holder) : std::string()) << std::endl;
}

// Returns 0, or errno.
int flock_of(int fd, int operation) {
  int result = 0;
  do {
    result = flock(fd, operation);
  } while (result != 0 && errno == EINTR);
  return result == 0 ? 0 : errno;
}

// A thread waits in the kernel, which gives the lock to each in turn: a poll would hardly ever
// find it free while others append all the time.
int wait_for(Console& console, const CacheFiles& files, int fd, int operation, bool& is_said) {
  std::future<int> taken = std::async(std::launch::async, &flock_of, fd, operation);
  if (!is_said && taken.wait_for(1s) == std::future_status::timeout) {
    is_said = true;
    say_waiting(console, files);
  }
  return taken.get();
}

// Returns a descriptor that holds the lock, or -1 if there is no lock file. Whoever holds a file
// that was replaced excludes nobody, so the new one is taken.
int take(Console& console, const CacheFiles& files, int operation) {
  const std::string path = files.lock_file();
  bool is_said = false;
  for (;;) {
    const int fd = open_lock_file(path);
    if (fd < 0) {
      return -1;
    }
    int error = flock_of(fd, operation | LOCK_NB);
    if (error == EWOULDBLOCK) {
      error = wait_for(console, files, fd, operation, is_said);
    }
    if (error == 0 && is_at(fd, path)) {
      return fd;
    }
    close(fd);
    if (error != 0) {
      errno = error;
      throw refused(path);
    }
  }
}

// The library takes the directory of a lock by name from the environment only.
class RootInEnvironment {
 public:
  explicit RootInEnvironment(const std::string& root) {
    if (const char* const before = getenv(kVariable)) {
      before_ = before;
    }
    setenv(kVariable, root.c_str(), 1);
  }
  ~RootInEnvironment() {
    if (before_) {
      setenv(kVariable, before_->c_str(), 1);
    } else {
      unsetenv(kVariable);
    }
  }
  RootInEnvironment(const RootInEnvironment&) = delete;
  RootInEnvironment& operator=(const RootInEnvironment&) = delete;

 private:
  static constexpr const char* kVariable = "QV_CACHE_STORE_ROOT";
  std::optional<std::string> before_;
};

}  // namespace

void ensure_lock_file(const CacheFiles& files, const std::string& like) {
  struct stat data {};
  if (stat(like.c_str(), &data) != 0) {
    return;
  }
  // A link that somebody has put there isn't followed: its file would get another owner.
  const int fd = open(files.lock_file().c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) {
    return;
  }
  // Only root may give a file away. Otherwise the umask has decided who else may take the lock.
  if (fchown(fd, data.st_uid, data.st_gid) == 0) {
    fchmod(fd, (data.st_mode & 0666) | S_IRUSR | S_IWUSR);
  }
  close(fd);
}

WriteLock::WriteLock(Console& console, const CacheFiles& files) {
  ensure_lock_file(files, files.main_file());
  // The library's own wait is told in its log only.
  const int fd = take(console, files, LOCK_EX);
  if (fd >= 0) {
    close(fd);
  }
  {
    const RootInEnvironment root(files.root);
    lock_ = std::make_unique<cache::StoreFLock>(files.name);
  }
  if (!lock_->is_valid()) {
    throw refused(files.lock_file());
  }
  lock_->lock();
}

WriteLock::~WriteLock() { lock_->unlock(); }

ReadLock::ReadLock(Console& console, const CacheFiles& files) : fd_(take(console, files, LOCK_SH)) {
  read_note();
}

std::optional<ReadLock> ReadLock::try_lock(const CacheFiles& files) {
  ReadLock lock;
  lock.fd_ = open_lock_file(files.lock_file());
  if (lock.fd_ >= 0 && flock_of(lock.fd_, LOCK_SH | LOCK_NB) != 0) {
    return std::nullopt;
  }
  lock.read_note();
  return lock;
}

ReadLock::ReadLock(ReadLock&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), noted_(std::move(other.noted_)) {}

ReadLock::~ReadLock() {
  if (fd_ >= 0) {
    close(fd_);
  }
}

void ReadLock::read_note() {
  std::array<char, kLargestNote> bytes;
  const ssize_t size = fd_ < 0 ? 0 : pread(fd_, bytes.data(), bytes.size(), 0);
  noted_ = noted_files({bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))});
}

std::optional<pid_t> holder_of(const CacheFiles& files) {
  return LockTable::read().holder_of(files.lock_file());
}

}  // namespace quorvane::tool
