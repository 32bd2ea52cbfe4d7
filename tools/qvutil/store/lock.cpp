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
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "qvutil/cli/outcome.h"
#include "qvutil/output/text.h"
#include "qvutil/store/lock_table.h"

namespace quorvane::tool {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kLargestNote = 4096;

enum class Taken { yes, no, no_file };

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

// Whoever replaces the lock file while it is opened excludes nobody, so it is opened again.
Taken try_flock(const std::string& path, int operation, int& fd) {
  for (;;) {
    fd = open_lock_file(path);
    if (fd < 0) {
      return Taken::no_file;
    }
    const bool is_locked = flock(fd, operation | LOCK_NB) == 0;
    const int error = errno;
    if (is_locked && is_at(fd, path)) {
      return Taken::yes;
    }
    close(fd);
    fd = -1;
    if (!is_locked && error != EINTR) {
      errno = error;
      return error == EWOULDBLOCK ? Taken::no : throw refused(path);
    }
  }
}

void say_waiting(Console& console, const CacheFiles& files) {
  const std::optional<pid_t> holder = holder_of(files);
  console.err() << "Waiting for the lock " << shown(files.lock_file())
                << (holder ? ", held by " + process_text(*holder) : std::string()) << std::endl;
}

// Polls: a signal is no way to say who holds the lock while it is waited for.
void wait_for(Console& console, const CacheFiles& files, const std::function<bool()>& try_once) {
  const auto start = std::chrono::steady_clock::now();
  bool is_said = false;
  auto pause = std::chrono::microseconds(50);
  while (!try_once()) {
    if (!is_said && std::chrono::steady_clock::now() - start >= 1s) {
      is_said = true;
      say_waiting(console, files);
    }
    std::this_thread::sleep_for(pause);
    pause = std::min(2 * pause, std::chrono::microseconds(10ms));
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

WriteLock::WriteLock(Console& console, const CacheFiles& files) {
  // The library's own wait is told in its log only.
  wait_for(console, files, [&] {
    int fd = -1;
    const Taken taken = try_flock(files.lock_file(), LOCK_EX, fd);
    if (fd >= 0) {
      close(fd);
    }
    return taken != Taken::no;
  });
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

ReadLock::ReadLock(Console& console, const CacheFiles& files) {
  wait_for(console, files, [&] { return try_flock(files.lock_file(), LOCK_SH, fd_) != Taken::no; });
  read_note();
}

std::optional<ReadLock> ReadLock::try_lock(const CacheFiles& files) {
  ReadLock lock;
  if (try_flock(files.lock_file(), LOCK_SH, lock.fd_) == Taken::no) {
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
