#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include <quorvane/file_store.h>

#include "src/cache/checks.h"
#include "src/process_generation.h"

namespace quorvane {
namespace cache {
namespace {

constexpr mode_t kMode = 0666;

// Marks a generation whose first caller is just opening the lock file anew.
constexpr std::uint64_t kReopening = std::uint64_t{1} << 63;

// To lock a file takes no permission to write to it, which a child may have lost with
// its user.
int open_to_lock(const std::string& path, int flags) {
  const int fd = open(path.c_str(), O_RDWR | flags, kMode);
  return fd < 0 && errno == EACCES ? open(path.c_str(), O_RDONLY | flags, kMode) : fd;
}

// Its address names a thread.
thread_local char t_identity;

}  // namespace

StoreFLock::StoreFLock(const std::string& name)
    : path_(get_store_file_path(name.empty() ? "lock" : "lock_" + name)),
      generation_(process_generation()) {
  fd_ = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kMode);
  if (fd_ < 0) {
    QV_LOG(g_module, WARN, "Cache store %s lock couldn't be obtained: %s.", path_.c_str(),
           std::strerror(errno));
  }
}

StoreFLock::StoreFLock(StoreFLock&& other) noexcept
    : fd_(other.fd_.exchange(-1)),
      path_(std::move(other.path_)),
      generation_(other.generation_.load()),
      owner_(other.owner_.exchange(nullptr)) {}

StoreFLock::~StoreFLock() {
  if (fd_ >= 0) {
    close(fd_);
  }
}

bool StoreFLock::is_valid() const { return fd_ >= 0; }

// Nobody looks at the descriptor before it is the process's own: it may just be
// getting another number.
void StoreFLock::lock() {
  leave_parents_lock();
  CACHE_ASSERT(fd_ >= 0);
  // flock sees one lock per descriptor; its threads exclude each other here.
  const void* owner = nullptr;
  while (!owner_.compare_exchange_strong(owner, &t_identity) && owner != &t_identity) {
    owner_.wait(owner);
    owner = nullptr;
  }
  call_flock(LOCK_EX);
}

void StoreFLock::unlock() {
  leave_parents_lock();
  CACHE_ASSERT(fd_ >= 0);
  call_flock(LOCK_UN);
  // Whoever took it: the file is free now, and nobody may wait for it any more.
  owner_.store(nullptr);
  owner_.notify_one();
}

void StoreFLock::call_flock(int operation) {
  int flock_ret;
  do {
    flock_ret = flock(fd_, operation);
  } while (flock_ret != 0 && errno == EINTR);
  CACHE_ASSERT(flock_ret == 0);
}

// An inherited descriptor shares its parent's lock: it would exclude nothing,
// and unlocking it would drop the parent's. The first caller in a child opens
// the file anew; others wait for it.
void StoreFLock::leave_parents_lock() {
  const std::uint64_t own = process_generation();
  std::uint64_t seen = generation_.load();
  while (seen != own) {
    if (seen == (own | kReopening)) {
      generation_.wait(seen);
      seen = generation_.load();
    } else if (generation_.compare_exchange_strong(seen, own | kReopening)) {
      owner_.store(nullptr);
      if (fd_ >= 0) {
        reopen();
      }
      generation_.store(own);
      generation_.notify_all();
      return;
    }
  }
}

void StoreFLock::reopen() {
  const std::string self = "/proc/self/fd/" + std::to_string(fd_);
  const int fresh = open_to_lock(self, O_CLOEXEC);
  if (fresh >= 0) {
    int dup_ret;
    do {
      dup_ret = dup3(fresh, fd_, O_CLOEXEC);
    } while (dup_ret < 0 && errno == EINTR);
    CACHE_ASSERT(dup_ret == fd_);
    close(fresh);
    return;
  }
  // No /proc, or no descriptor to spare: give this one up first.
  close(fd_);
  fd_ = open_to_lock(path_, O_CREAT | O_CLOEXEC);
  CACHE_ASSERT(fd_ >= 0);
}

}  // namespace cache
}  // namespace quorvane
