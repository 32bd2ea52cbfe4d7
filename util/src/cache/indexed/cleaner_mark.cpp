#include "src/cache/indexed/cleaner_mark.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

#include "src/cache/lock_wait.h"
#include "src/fork_guard.h"

namespace quorvane {
namespace cache {
namespace indexed {

// All marks of the process, for the fork handler.
struct CleanerMark::InProcess {
  static constinit inline std::mutex mutex;
  static constinit inline CleanerMark* first = nullptr;

  // The caller of add and remove holds the mutex.
  static void add(CleanerMark& mark) {
    mark.next_ = first;
    if (first != nullptr) {
      first->previous_ = &mark;
    }
    first = &mark;
    mark.is_listed_ = true;
  }

  static void remove(CleanerMark& mark) {
    (mark.previous_ != nullptr ? mark.previous_->next_ : first) = mark.next_;
    if (mark.next_ != nullptr) {
      mark.next_->previous_ = mark.previous_;
    }
    mark.is_listed_ = false;
  }

  // Empties the list: the marks are on stacks of threads that the child doesn't have.
  static void leave_all_to_parent() {
    while (first != nullptr) {
      CleanerMark& mark = *first;
      remove(mark);
      mark.next_ = nullptr;
      mark.leave_to_parent();
    }
  }

  static bool prepare() {
    fork_guard::add(mutex);
    return pthread_atfork(nullptr, nullptr, &leave_all_to_parent) == 0;
  }
  static inline const bool is_prepared = prepare();
};

CleanerMark::~CleanerMark() {
  const fork_guard::Lock lock(InProcess::mutex);
  if (is_listed_) {
    InProcess::remove(*this);
  }
  if (is_held()) {
    close(fd_);
  }
}

void CleanerMark::leave_to_parent() {
  if (is_held()) {
    close(fd_);
  }
  fd_ = -1;
}

bool CleanerMark::open(int flags) {
  return fork_guard::open_unshared(
      InProcess::mutex,
      [this, flags] {
        return descriptor::open_off_standard(path_.c_str(), O_CLOEXEC | O_NONBLOCK | flags, 0666);
      },
      [this](int fd) { keep(fd); });
}

void CleanerMark::keep(int fd) {
  struct stat status;
  if (fd >= 0 && fstat(fd, &status) == 0) {
    id_ = descriptor::id_of(status);
    fd_ = fd;
    InProcess::add(*this);
  }
}

// Not with O_EXCL: a fork at the same time makes open_unshared open the file twice.
bool CleanerMark::create() { return open(O_RDWR | O_CREAT) && flock(fd_, LOCK_EX | LOCK_NB) == 0; }

// A shared lock: others who look at the same time aren't taken for a cleaner.
CleanerMark::State CleanerMark::look() {
  if (!open(O_RDONLY)) {
    return errno == ENOENT || errno == ENOTDIR ? State::no_file : State::unknown;
  }
  if (flock(fd_, LOCK_SH | LOCK_NB) == 0) {
    flock(fd_, LOCK_UN);
    return State::dead;
  }
  return errno == EWOULDBLOCK ? State::live : State::unknown;
}

void CleanerMark::wait() const {
  LockWait wait(path_);
  while (flock(fd_, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    wait.pause([this] { return flock_holder(id_); });
  }
  flock(fd_, LOCK_UN);  // nobody must take this process for a cleaner
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
