#include "src/report_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>

#include "src/fork_gate.h"
#include "src/fork_guard.h"
#include "src/process_generation.h"

namespace quorvane {
namespace stats {
namespace {

constexpr int kWrite = O_WRONLY | O_APPEND | O_CLOEXEC;

// All files, for the fork handler.
constinit std::mutex g_files_mutex;
constinit ReportFile* g_files = nullptr;
[[maybe_unused]] const bool g_is_guarded = (fork_guard::add(g_files_mutex), true);

// Reports no failure: where files can't be locked, reports are written without the lock.
// Kept: docs/compatibility.md
void flock_through(int fd, int operation) {
  while (flock(fd, operation) == -1 && errno == EINTR) {
  }
}

// Opens the file of `fd` again, as an open file description of its own.
int open_again(int fd, int flags) {
  char path[32];
  std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
  return descriptor::open_off_standard(path, flags);
}

// False for what may block, as a FIFO does until it has a reader.
bool opens_at_once(const char* path) {
  struct stat status;
  return stat(path, &status) != 0 || S_ISREG(status.st_mode);
}

}  // namespace

ReportFile::ReportFile(int& number, bool is_kept)
    : number_(number), generation_(process_generation()), is_kept_(is_kept) {
  const fork_guard::Lock lock(g_files_mutex);
  next_ = g_files;
  g_files = this;
}

ReportFile::~ReportFile() {
  drop_lock_fd();
  std::free(path_);
  const fork_guard::Lock lock(g_files_mutex);
  ReportFile** link = &g_files;
  while (*link != this) {
    link = &(*link)->next_;
  }
  *link = next_;
}

// A fork waits until the descriptors are known, since a child may have to close them.
bool ReportFile::open(const char* path) {
  std::optional<fork_gate::Closed> closed;
  if (opens_at_once(path)) {
    closed.emplace();
  }
  if (!take(descriptor::open_off_standard(path, kWrite | O_CREAT, 0644))) {
    return false;
  }
  path_ = canonicalize_file_name(path);
  return true;
}

int ReportFile::close() {
  if (!is_open()) {
    errno = EBADF;
    return -1;
  }
  return ::close(number());
}

bool ReportFile::lock() {
  if (is_given_up_ || !make_ours()) {
    return false;
  }
  flock_through(lock_number(), LOCK_EX);
  return true;
}

void ReportFile::unlock() { flock_through(lock_number(), LOCK_UN); }

bool ReportFile::ends_within_a_line() const {
  struct stat status;
  char last = '\n';
  return is_on_disk_ && lock_fd_ != -1 && fstat(lock_fd_, &status) == 0 && status.st_size > 0 &&
         pread(lock_fd_, &last, 1, status.st_size - 1) == 1 && last != '\n';
}

// The list is consistent: fork_guard held its mutex during the fork.
void ReportFile::all_in_child() {
  for (ReportFile* file = g_files; file != nullptr; file = file->next_) {
    file->in_child();
  }
}

void ReportFile::in_child() {
  if (is_kept_) {
    let_go_of_parents_lock();
    return;
  }
  drop_lock_fd();
  close();
  set_number(-1);
}

// Atomic: a fork may come at any moment, and in the child the number must be either open on
// id_ or -1.
int ReportFile::number() const {
  return std::atomic_ref<int>(number_).load(std::memory_order_acquire);
}

void ReportFile::set_number(int number) {
  std::atomic_ref<int>(number_).store(number, std::memory_order_release);
}

bool ReportFile::is_open() const { return descriptor::is_open_on(number(), id_); }

bool ReportFile::has_lock_fd() const { return descriptor::is_open_on(lock_fd_, id_); }

bool ReportFile::take(int fd) {
  struct stat status;
  if (fd == -1) {
    return false;
  }
  if (fstat(fd, &status) != 0) {
    const int error = errno;
    ::close(fd);
    errno = error;
    return false;
  }
  id_ = descriptor::id_of(status);
  is_on_disk_ = S_ISREG(status.st_mode);
  is_shared_ = false;
  set_number(fd);
  open_lock_fd();
  return true;
}

// O_NONBLOCK: the path may lead to a FIFO without a reader by now.
bool ReportFile::reopen() {
  drop_lock_fd();
  set_number(-1);
  if (path_ == nullptr ||
      !take(descriptor::open_off_standard(path_, kWrite | O_CREAT | O_NONBLOCK, 0644))) {
    return false;
  }
  fcntl(number(), F_SETFL, O_APPEND);
  return true;
}

bool ReportFile::make_ours() {
  let_go_of_parents_lock();
  if (is_on_disk_ && !has_lock_fd() && is_open()) {
    open_lock_fd();
    let_go_of_parents_number();
  }
  return is_open() || reopen();
}

// Opens none if this process may not read the file; the lock then goes through the
// descriptor to write through.
void ReportFile::open_lock_fd() {
  fork_guard::open_unshared(
      g_files_mutex,
      [this] { return is_on_disk_ ? open_again(number(), O_RDONLY | O_CLOEXEC) : -1; },
      [this](int fd) { lock_fd_ = fd; });
}

void ReportFile::drop_lock_fd() {
  if (has_lock_fd()) {
    ::close(lock_fd_);
  }
  lock_fd_ = -1;
}

void ReportFile::let_go_of_parents_lock() {
  const std::uint64_t generation = process_generation();
  if (generation_ == generation) {
    return;
  }
  generation_ = generation;
  if (is_on_disk_) {
    is_shared_ = true;
    const int own = has_lock_fd() ? open_again(lock_fd_, O_RDONLY | O_CLOEXEC) : -1;
    drop_lock_fd();
    lock_fd_ = own;
    let_go_of_parents_number();
  }
}

// Only if the lock would go through that descriptor.
void ReportFile::let_go_of_parents_number() {
  if (is_shared_ && lock_fd_ == -1 && is_open()) {
    const int own = open_again(number(), kWrite);
    close();
    set_number(own);
    is_shared_ = false;
  }
}

int ReportFile::lock_number() const { return lock_fd_ != -1 ? lock_fd_.load() : number(); }

}  // namespace stats
}  // namespace quorvane
