#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include <quorvane/file_store.h>

#include "src/cache/append_note.h"
#include "src/cache/checks.h"
#include "src/cache/lock_wait.h"
#include "src/cache/store_files.h"
#include "src/cache/store_place.h"
#include "src/descriptor.h"
#include "src/fork_guard.h"
#include "src/process_generation.h"
#include "src/uncancellable.h"

namespace quorvane {
namespace cache {
namespace {

constexpr mode_t kMode = 0666;

// Marks the generation of a child whose first caller is reopening the lock file.
constexpr std::uint64_t kReopening = std::uint64_t{1} << 63;

// Larger than any note. A larger lock file holds no note.
constexpr std::size_t kLargestNote = 4096;
constexpr std::size_t kNoteHeaderSize = 16;

// Falls back to read-only: flock needs no write permission, and a child that changed its
// user may have none.
int open_to_lock(const char* path, int flags) {
  const int fd = descriptor::open_off_standard(path, O_RDWR | O_CLOEXEC | flags, kMode);
  return fd < 0 && errno == EACCES
             ? descriptor::open_off_standard(path, O_RDONLY | O_CLOEXEC | flags, kMode)
             : fd;
}

// For a lock that is never written to. A pipe in the place of the file is not waited for.
int open_to_read(const char* path) {
  return descriptor::open_off_standard(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK, kMode);
}

bool may_be_opened(const char* path) {
  return faccessat(AT_FDCWD, path, R_OK | W_OK, AT_EACCESS) == 0;
}

// Whether the lock file is also the store file of a cache named "lock_NAME".
bool is_store_file(std::string_view content) {
  std::uint32_t magic = 0;
  content.copy(reinterpret_cast<char*>(&magic), sizeof(magic));
  return magic == QV_CACHE_STORE_MAGIC_NUMBER;
}

// What a link leads to may be any file: what is in it isn't the library's.
bool is_link(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

// After a failed open of the lock file: whether its directory is gone.
bool has_no_place() { return errno == ENOENT || errno == ENOTDIR; }

// The address of its copy identifies a thread.
thread_local char t_identity;

}  // namespace

// All locks of the process. A child replaces the descriptors that it inherits.
struct StoreFLock::InProcess {
  static constinit inline std::mutex mutex;
  static constinit inline StoreFLock* first = nullptr;

  // The caller of add and remove holds the mutex.
  static void add(StoreFLock& lock) {
    lock.next_ = first;
    if (first != nullptr) {
      first->previous_ = &lock;
    }
    first = &lock;
  }

  static void remove(StoreFLock& lock) {
    (lock.previous_ != nullptr ? lock.previous_->next_ : first) = lock.next_;
    if (lock.next_ != nullptr) {
      lock.next_->previous_ = lock.previous_;
    }
  }

  // At the fork, not at a lock's first use: until that, the child would keep the lock of a
  // parent that is killed, and everybody else would wait for the child. The list is
  // consistent, since the fork held its mutex.
  static void leave_parents_locks() {
    for (StoreFLock* lock = first; lock != nullptr; lock = lock->next_) {
      lock->leave_parents_lock();
    }
  }

  static bool prepare() {
    fork_guard::add(mutex);
    return pthread_atfork(nullptr, nullptr, &leave_parents_locks) == 0;
  }
  static inline const bool is_prepared = prepare();
};

StoreFLock::StoreFLock(const std::string& name) : StoreFLock(StorePlace{"", name}) {}

StoreFLock::StoreFLock(const StorePlace& place)
    : path_(place.path_of(lock_file_name(place.name))),
      generation_(process_generation()),
      is_read_only_(place.read_only),
      is_late_(place.late_lock && may_be_opened(path_.c_str())) {
  const Uncancellable uncancellable;
  {
    const fork_guard::Lock guard(InProcess::mutex);
    InProcess::add(*this);
  }
  if (is_late_) {
    return;
  }
  const bool is_open = open_own([this] {
    return is_read_only_
               ? open_to_read(path_.c_str())
               : descriptor::open_off_standard(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kMode);
  });
  may_be_missing_ = is_read_only_ && (is_open || is_missing());
  if (!is_open && !may_be_missing_) {
    QV_LOG(g_module, WARN, "Cache store %s lock couldn't be obtained: %s.", path_.c_str(),
           std::strerror(errno));
  }
}

StoreFLock::StoreFLock(StoreFLock&& other) noexcept
    : path_(std::move(other.path_)),
      generation_(other.generation_.load()),
      owner_(other.owner_.exchange(nullptr)),
      device_(other.device_),
      inode_(other.inode_),
      is_inherited_(other.is_inherited_),
      note_stays_(other.note_stays_),
      is_read_only_(other.is_read_only_),
      may_be_missing_(other.may_be_missing_),
      is_late_(other.is_late_) {
  const fork_guard::Lock guard(InProcess::mutex);
  InProcess::add(*this);
  fd_ = other.fd_.exchange(-1);
  other.inode_ = 0;
  other.may_be_missing_ = false;
  other.is_late_ = false;
}

StoreFLock::~StoreFLock() {
  const fork_guard::Lock guard(InProcess::mutex);
  InProcess::remove(*this);
  if (is_open_on_own_file()) {
    close(fd_);
  }
}

bool StoreFLock::is_valid() const { return fd_ >= 0 || may_be_missing_ || is_late_; }

// --- the lock ---

// The descriptor is read only after leave_parents_lock: in a child, another thread may be
// replacing it.
void StoreFLock::lock() {
  leave_parents_lock();
  assert_valid();
  const Uncancellable uncancellable;  // a cancelled thread would never release its turn
  const bool is_nested = is_held_by_this_thread();
  LockWait wait(path_);
  take_turn(wait);
  lock_file(wait);
  if (!is_nested) {  // otherwise this thread's own append wrote the note
    undo_unfinished_append();
  }
}

void StoreFLock::unlock() {
  leave_parents_lock();
  assert_valid();
  if (is_open_on_own_file()) {  // otherwise the program closed it, which released the lock
    call_flock(LOCK_UN);
  }
  owner_.store(nullptr);  // also when another thread locked it: the file is free now
}

// flock doesn't tell threads apart that share a descriptor, so they take turns.
void StoreFLock::take_turn(LockWait& wait) {
  const void* owner = nullptr;
  while (!owner_.compare_exchange_strong(owner, &t_identity) && owner != &t_identity) {
    wait.pause(&getpid);
    owner = nullptr;
  }
}

bool StoreFLock::is_held_by_this_thread() const { return owner_ == &t_identity; }

void StoreFLock::lock_file(LockWait& wait) {
  // Readers only have to keep writers out.
  const int operation = is_read_only_ ? LOCK_SH : LOCK_EX;
  do {
    if (!ensure_open() && may_be_missing_) {
      return;  // no writer has created the file yet
    }
    CACHE_ASSERT(fd_ >= 0);
    while (flock(fd_, operation | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
      wait.pause([this] { return flock_holder({device_, inode_}); });
    }
    call_flock(operation);  // a no-op, unless the attempt failed for another reason
  } while (is_replaced() && (take_file_at_path() || must_try_again(wait)));
}

void StoreFLock::assert_valid() const {
  if (!may_be_missing_ && !is_late_) {
    CACHE_ASSERT(fd_ >= 0);
  }
}

// Called when a new lock file could not be opened. If its directory is gone, the old file
// will do. Otherwise others may hold the new one.
bool StoreFLock::must_try_again(LockWait& wait) {
  if (has_no_place()) {
    return false;
  }
  wait.pause([] { return 0; });
  return true;
}

void StoreFLock::call_flock(int operation) {
  int flock_ret;
  do {
    flock_ret = flock(fd_, operation);
  } while (flock_ret != 0 && errno == EINTR);
  CACHE_ASSERT(flock_ret == 0);
}

// --- the file ---

// Whether fd_ still refers to the lock file. The program may have closed all descriptors and
// opened files of its own under the same numbers.
bool StoreFLock::is_open_on_own_file() const {
  return descriptor::is_open_on(fd_, {device_, inode_});
}

// Opens a descriptor that no child shares: a child would keep the lock after this process
// is killed.
template <typename Open>
bool StoreFLock::open_own(const Open& open) {
  return fork_guard::open_unshared(InProcess::mutex, open, [this](int fd) { keep(fd); });
}

void StoreFLock::keep(int fd) {
  struct stat status;
  if (fd >= 0 && fstat(fd, &status) == 0) {
    device_ = status.st_dev;
    inode_ = status.st_ino;
  }
  fd_ = fd;
}

int StoreFLock::open_file(const char* path, int flags) const {
  return is_read_only_ ? open_to_read(path) : open_to_lock(path, flags);
}

bool StoreFLock::open_at_path() {
  return open_own([this] { return open_file(path_.c_str(), O_CREAT); });
}

bool StoreFLock::ensure_open() { return is_open_on_own_file() || open_at_path(); }

// After a failed open: whether the root is there, and only the lock file is not. Allocates
// nothing: a thread must not leave its turn through an exception.
bool StoreFLock::is_missing() const {
  std::array<char, PATH_MAX> root;
  if (errno != ENOENT || path_.empty() || path_.size() >= root.size()) {
    return false;
  }
  root[path_.copy(root.data(), path_.rfind('/'))] = '\0';
  return access(root.data(), F_OK) == 0;
}

// Whether the path names another file than the locked one, or none.
bool StoreFLock::is_replaced() const {
  struct stat status;
  if (stat(path_.c_str(), &status) != 0) {
    return errno == ENOENT;
  }
  return status.st_dev != device_ || status.st_ino != inode_;
}

// Switches to the file that the path names now. If that can't be opened, keeps the old one
// and returns false.
bool StoreFLock::take_file_at_path() {
  return fork_guard::open_unshared(
      InProcess::mutex, [this] { return open_file(path_.c_str(), O_CREAT); },
      [this](int fd) {
        if (fd >= 0) {
          const int old = fd_;
          keep(fd);
          close(old);
        }
      });
}

// Switches to the file that the path names now. True when there is a file to lock, or none is
// needed.
bool StoreFLock::find_file() {
  if (!ensure_open()) {
    return may_be_missing_ && is_missing();
  }
  return !is_replaced() || take_file_at_path() ||
         ((may_be_missing_ || !is_inherited_) && has_no_place());
}

// Called before each load and store. True when a lock that was open can't be opened again:
// a child may have lost its root directory or its permissions.
bool StoreFLock::is_lost() {
  leave_parents_lock();
  if (!was_open() && !may_be_missing_ && !is_late_) {
    return false;  // lock() reports it
  }
  const Uncancellable uncancellable;
  const bool is_nested = is_held_by_this_thread();
  LockWait wait(path_);
  take_turn(wait);
  const bool is_found = find_file();
  if (!is_found) {
    QV_LOG(g_module, WARN, "Cache store %s lock couldn't be obtained: %s.", path_.c_str(),
           std::strerror(errno));
  }
  if (!is_nested) {
    owner_.store(nullptr);
  }
  return !is_found;
}

// --- in a child ---

// A child's inherited descriptor shares its parent's lock: locking it excludes nobody, and
// unlocking it releases the parent's lock. Usually the fork handler calls this. In a child
// of a raw clone the first caller does the work, and other threads wait for it.
void StoreFLock::leave_parents_lock() {
  const std::uint64_t own = process_generation();
  std::uint64_t seen = generation_.load();
  while (seen != own) {
    if (seen == (own | kReopening)) {
      generation_.wait(seen);
      seen = generation_.load();
    } else if (generation_.compare_exchange_strong(seen, own | kReopening)) {
      owner_.store(nullptr);
      is_inherited_ = true;
      if (fd_ >= 0) {
        reopen_in_child();
      }
      generation_.store(own);
      generation_.notify_all();
      return;
    }
  }
}

// Allocates nothing. If the file can't be opened now, its first use tries again.
void StoreFLock::reopen_in_child() {
  if (!is_open_on_own_file()) {
    return;
  }
  const int inherited = fd_;
  std::array<char, 32> self;
  std::snprintf(self.data(), self.size(), "/proc/self/fd/%d", inherited);
  const bool is_open = open_own([this, &self] { return open_file(self.data(), 0); });
  close(inherited);
  if (!is_open) {  // no /proc, or no free descriptor until `inherited` was closed
    open_at_path();
  }
}

// --- the note of an append ---

// The caller holds the lock, so nobody is in the middle of an append.
void StoreFLock::undo_unfinished_append() try {
  note_stays_ = false;
  holds_store_ = false;
  struct stat status;
  if (fstat(fd_, &status) != 0 || status.st_size == 0) {
    return;
  }
  std::array<char, kLargestNote> bytes;
  const ssize_t size = std::max<ssize_t>(pread(fd_, bytes.data(), bytes.size(), 0), 0);
  const std::string_view content(bytes.data(), static_cast<std::size_t>(size));
  const auto note = AppendNote::decode(path_.substr(0, path_.rfind('/')), content);
  holds_store_ = is_store_file(content) || (!note && is_link(path_));
  if (is_read_only_) {
    note_stays_ = note.has_value();
    return;
  }
  const std::string paths = note ? note->paths() : "";
  const auto undone = note ? note->undo() : AppendNote::Undone::nothing;
  if (undone == AppendNote::Undone::something) {
    QV_LOG(g_module, WARN, "Undid an append to %s that was cut short", paths.c_str());
  } else if (undone == AppendNote::Undone::failed) {
    QV_LOG(g_module, WARN, "Couldn't undo an append to %s that was cut short", paths.c_str());
    note_stays_ = true;  // for a process that can undo it
    return;
  }
  note_stays_ = !clear_note() && note;
} catch (const std::bad_alloc&) {
  note_stays_ = true;
}

// False when the lock file holds an old note that can't be cleared: the next process would
// act on it and undo this append too. A note that can't be written, say on a full disk, does
// not stop the append.
bool StoreFLock::put_note(std::string_view bytes) {
  if (note_stays_) {
    return false;
  }
  if (!holds_store_ && is_open_on_own_file() &&
      pwrite(fd_, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    clear_note();
  }
  return true;
}

// Overwrites the note where the file can't be truncated: a note must not outlive its
// append.
bool StoreFLock::clear_note() {
  constexpr std::array<char, kNoteHeaderSize> kNoNote{};
  return holds_store_ ||
         (is_open_on_own_file() &&
          (ftruncate(fd_, 0) == 0 || pwrite(fd_, kNoNote.data(), kNoNote.size(), 0) > 0));
}

}  // namespace cache
}  // namespace quorvane
