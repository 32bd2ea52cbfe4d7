#include "src/trace_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "src/line.h"
#include "src/record.h"

namespace quorvane {
namespace tracing {
namespace {

// With this, somebody has closed the array. The next process goes on before it.
constexpr std::string_view kClosing = "]\n";

// What stands in for the process id in a name.
constexpr std::string_view kProcess = "%p";

// While one exists, a write beyond the process's limit for files fails instead of sending SIGXFSZ,
// which ends a program.
class NoSizeSignal {
 public:
  NoSizeSignal() {
    sigemptyset(&signal_);
    sigaddset(&signal_, SIGXFSZ);
    sigset_t pending;
    sigpending(&pending);
    was_pending_ = sigismember(&pending, SIGXFSZ) == 1;
    pthread_sigmask(SIG_BLOCK, &signal_, &before_);
  }
  ~NoSizeSignal() {
    const int error = errno;
    const timespec at_once{0, 0};
    while (!was_pending_ && sigtimedwait(&signal_, nullptr, &at_once) == SIGXFSZ) {
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    errno = error;
  }
  NoSizeSignal(const NoSizeSignal&) = delete;
  NoSizeSignal& operator=(const NoSizeSignal&) = delete;

 private:
  sigset_t signal_;
  sigset_t before_;
  bool was_pending_ = false;
};

}  // namespace

void TraceFile::set_name(const char* name) {
  const bool is_below = name[0] != '/' && getcwd(name_, sizeof(name_)) != nullptr;
  const std::size_t used = is_below ? std::strlen(name_) : 0;
  const int size = std::snprintf(name_ + used, sizeof(name_) - used, is_below ? "/%s" : "%s", name);
  if (size >= static_cast<int>(sizeof(name_) - used)) {
    name_[0] = '\0';
  }
}

bool TraceFile::write(std::string_view lines) {
  const int error = errno;
  const NoSizeSignal no_signal;
  const bool is_written = (descriptor::is_open_on(fd_, id_) || open()) && append(lines);
  if (!is_written) {
    refuse(why_ != nullptr ? why_ : std::strerror(errno));
  }
  errno = error;
  return is_written;
}

void TraceFile::in_child() {
  if (descriptor::is_open_on(fd_, id_)) {
    close(fd_);
  }
  fd_ = -1;
}

// The name, or if another process uses that, the name and the process id.
bool TraceFile::open() {
  fd_ = -1;
  why_ = nullptr;
  if (!expand()) {
    why_ = "the name is too long";
    return false;
  }
  Opened opened = open_at(path_);
  const std::size_t size = std::strlen(path_);
  if (opened == Opened::in_use &&
      std::snprintf(path_ + size, sizeof(path_) - size, ".%d", getpid()) <
          static_cast<int>(sizeof(path_) - size)) {
    opened = open_at(path_);
  }
  if (opened == Opened::in_use) {
    why_ = "another process writes to it";
  }
  if (opened != Opened::yes) {
    return false;
  }
  char line[kMostLine];
  const char* const end =
      write_process_name(line, is_empty_, getpid(), program_invocation_short_name);
  return append({line, static_cast<std::size_t>(end - line)});
}

// Doesn't wait for the reader of a FIFO.
TraceFile::Opened TraceFile::open_at(const char* path) {
  const int fd = descriptor::open_off_standard(
      path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0644);
  if (fd == -1) {
    return Opened::no;
  }
  const Opened opened = take(fd);
  if (opened != Opened::yes) {
    const int error = errno;
    close(fd);
    fd_ = -1;
    errno = error;
  }
  return opened;
}

// Where files can't be locked, it does without.
TraceFile::Opened TraceFile::take(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0) {
    return Opened::no;
  }
  is_regular_ = S_ISREG(status.st_mode);
  if (!is_regular_ && !S_ISCHR(status.st_mode)) {
    why_ = "it is no file";
    return Opened::no;
  }
  if (is_regular_ && flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    return Opened::in_use;
  }
  if (is_regular_ && fstat(fd, &status) != 0) {  // whoever had the lock has written
    return Opened::no;
  }
  fd_ = fd;
  id_ = descriptor::id_of(status);
  is_empty_ = !is_regular_ || status.st_size == 0;
  return is_empty_ || make_whole(fd, status.st_size) ? Opened::yes : Opened::no;
}

// Cuts off what a killed process has left of a line. A file of something else stays as it is.
bool TraceFile::make_whole(int fd, off_t size) {
  char head[kTraceStart.size()];
  char tail[kMostLine];
  const off_t from = size > static_cast<off_t>(sizeof(tail)) ? size - off_t{sizeof(tail)} : 0;
  const ssize_t first = pread(fd, head, sizeof(head), 0);
  const ssize_t got = pread(fd, tail, sizeof(tail), from);
  if (first < 0 || got < 0) {
    return false;
  }
  const std::string_view seen(tail, static_cast<std::size_t>(got));
  const std::size_t last = seen.rfind(kLineEnd);
  const std::size_t whole = last == std::string_view::npos ? 0 : last + kLineEnd.size();
  const std::string_view rest = seen.substr(whole);
  const bool is_trace = std::string_view(head, static_cast<std::size_t>(first)) == kTraceStart &&
                        (whole != 0 || from == 0) &&
                        (rest.find('\n') == std::string_view::npos || rest == kClosing);
  if (!is_trace) {
    why_ = "it is no trace";
    return false;
  }
  is_empty_ = whole == 0;
  return rest.empty() || ftruncate(fd, from + static_cast<off_t>(whole)) == 0;
}

// Of lines that don't fit on the disk, the whole ones stay.
bool TraceFile::append(std::string_view bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t written = ::write(fd_, bytes.data() + done, bytes.size() - done);
    if (written > 0) {
      done += static_cast<std::size_t>(written);
    } else if (written == 0 || errno != EINTR) {
      const int error = written == 0 ? ENOSPC : errno;
      const std::size_t last = bytes.substr(0, done).rfind('\n');
      const std::size_t whole = last == std::string_view::npos ? 0 : last + 1;
      struct stat status;
      if (is_regular_ && done != whole && fstat(fd_, &status) == 0) {
        [[maybe_unused]] const int cut =
            ftruncate(fd_, status.st_size - static_cast<off_t>(done - whole));
      }
      errno = error;
      return false;
    }
  }
  return true;
}

// False if the name is too long.
bool TraceFile::expand() {
  const std::string_view name(name_);
  char process[16];
  const int digits = std::snprintf(process, sizeof(process), "%d", getpid());
  std::size_t used = 0;
  for (std::size_t at = 0; at < name.size();) {
    const bool is_process = name.substr(at, kProcess.size()) == kProcess;
    const std::string_view part = is_process
                                      ? std::string_view(process, static_cast<std::size_t>(digits))
                                      : name.substr(at, 1);
    if (used + part.size() >= sizeof(path_)) {
      path_[0] = '\0';
      return false;
    }
    std::memcpy(path_ + used, part.data(), part.size());
    used += part.size();
    at += is_process ? kProcess.size() : 1;
  }
  path_[used] = '\0';
  return used != 0;
}

// The lock goes with the descriptor.
void TraceFile::refuse(const char* why) {
  record_end(path_[0] != '\0' ? path_ : "QV_TRACE_FILE", why);
  in_child();
}

}  // namespace tracing
}  // namespace quorvane
