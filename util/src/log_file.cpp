#include "src/log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "src/process_generation.h"
#include "src/uncancellable.h"

namespace quorvane {
namespace logging {
namespace {

const std::string* absolute(const std::string& path) {
  std::error_code error;
  const std::filesystem::path whole = std::filesystem::absolute(path, error);
  return error ? nullptr : new std::string(whole);
}

}  // namespace

// The number comes last: a signal handler may call reopen at any moment.
int LogFile::open(const std::string& path, int flags, mode_t mode) {
  const int fd = descriptor::open_off_standard(path.c_str(), flags, mode);
  struct stat status;
  if (fd < 0) {
    return -1;
  }
  if (fstat(fd, &status) == 0) {
    current_ = descriptor::id_of(status);
    next_ = current_;
  }
  path_ = absolute(path);
  flags_ = flags;
  mode_ = mode;
  fd_.store(fd, std::memory_order_release);
  return fd;
}

// A call during another one can't wait for it: it may have interrupted that one. It leaves its
// request to the other call, which then opens the path again.
int LogFile::reopen() {
  const int caller_errno = errno;
  const Uncancellable until_done;
  bool is_replaced = true;
  is_wanted_.store(true);
  while (is_wanted_.load() && begin()) {
    is_wanted_.store(false);
    is_replaced = replace();
    reopener_.store(0);
  }
  if (!is_replaced) {
    return -1;
  }
  errno = caller_errno;
  return 0;
}

// False while another call is in progress. A child doesn't have the thread that was in one.
bool LogFile::begin() {
  const std::uint64_t own = process_generation();
  std::uint64_t found = reopener_.load();
  return found != own && reopener_.compare_exchange_strong(found, own);
}

// O_NONBLOCK: the path may lead to a FIFO without a reader by now.
bool LogFile::replace() {
  if (fd_.load(std::memory_order_acquire) < 0) {
    return true;  // nothing to reopen
  }
  if (path_ == nullptr) {
    errno = ENOENT;
    return false;
  }
  const int fresh =
      descriptor::open_off_standard(path_->c_str(), flags_ | O_CLOEXEC | O_NONBLOCK, mode_);
  if (fresh < 0) {
    return false;
  }
  const bool is_replaced = replace_by(fresh);
  const int error = errno;
  close(fresh);
  errno = error;
  return is_replaced;
}

// dup3 replaces the file at once: a write goes wholly into the old one or into the new one.
bool LogFile::replace_by(int fresh) {
  const int fd = fd_.load(std::memory_order_relaxed);
  struct stat status;
  if (fstat(fresh, &status) != 0) {
    return false;
  }
  const bool is_ours = descriptor::is_open_on(fd, current_) || descriptor::is_open_on(fd, next_);
  if (!is_ours || fresh == fd) {
    errno = EBADF;  // the program has closed it, and may use the number for another file
    return false;
  }
  const int status_flags = fcntl(fd, F_GETFL);
  const int descriptor_flags = fcntl(fd, F_GETFD);
  if (status_flags < 0 || descriptor_flags < 0 || fcntl(fresh, F_SETFL, status_flags) != 0) {
    return false;
  }
  next_ = descriptor::id_of(status);
  if (dup3(fresh, fd, (descriptor_flags & FD_CLOEXEC) != 0 ? O_CLOEXEC : 0) < 0) {
    return false;
  }
  current_ = next_;
  return true;
}

}  // namespace logging
}  // namespace quorvane
