#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
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
#include "src/descriptor.h"
#include "src/fork_guard.h"
#include "src/process_generation.h"
#include "src/uncancellable.h"

namespace quorvane {
namespace cache {
namespace {

constexpr mode_t kMode = 0666;

// Marks a generation whose first caller is just opening the lock file for it.
constexpr std::uint64_t kReopening = std::uint64_t{1} << 63;

// Larger than any note: a lock file that holds more makes no sense.
constexpr std::size_t kLargestNote = 4096;
constexpr std::size_t kNoteHeaderSize = 16;

// Locking a file requires no write permission, which a child may have lost with its
// user.
int open_to_lock(const char* path, int flags) {
  const int fd = descriptor::open_off_standard(path, O_RDWR | O_CLOEXEC | flags, kMode);
  return fd < 0 && errno == EACCES
             ? descriptor::open_off_standard(path, O_RDONLY | O_CLOEXEC | flags, kMode)
             : fd;
}

// Whether a lock's file is that of a store as well: of a cache whose name is "lock_NAME".
bool is_store_file(std::string_view content) {
  std::uint32_t magic = 0;
  content.copy(reinterpret_cast<char*>(&magic), sizeof(magic));
  return magic == QV_CACHE_STORE_MAGIC_NUMBER;
}

// Of an attempt to open the lock file: whether there can be no file of this name.
bool has_no_place() { return errno == ENOENT || errno == ENOTDIR; }

// Its address names a thread.
thread_local char t_identity;

}  // namespace

// All locks of the process, for a child to leave.
struct StoreFLock::InProcess {
  static constinit inline std::mutex mutex;
  static constinit inline StoreFLock* first = nullptr;

  // This and the next with the mutex held.
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

  // Not at a lock's first use: until then the child would keep the lock of a parent
  // that is killed, and everybody else would wait for the child.
  static void leave_parents_locks() {  // the list is whole: the fork held its mutex
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

StoreFLock::StoreFLock(const std::string& name)
    : path_(get_store_file_path(lock_file_name(name))), generation_(process_generation()) {
  const Uncancellable uncancellable;
  {
    const fork_guard::Lock guard(InProcess::mutex);
    InProcess::add(*this);
  }
  if (!open_own([this] {
        return descriptor::open_off_standard(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kMode);
      })) {
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
      note_stays_(other.note_stays_) {
  const fork_guard::Lock guard(InProcess::mutex);
  InProcess::add(*this);
  fd_ = other.fd_.exchange(-1);
  other.inode_ = 0;
}

StoreFLock::~StoreFLock() {
  const fork_guard::Lock guard(InProcess::mutex);
  InProcess::remove(*this);
  if (is_open_on_own_file()) {
    close(fd_);
  }
}

bool StoreFLock::is_valid() const { return fd_ >= 0; }

// --- the lock ---

// Nobody looks at the descriptor before it is the process's own: it may just be
// getting another number.
void StoreFLock::lock() {
  leave_parents_lock();
  CACHE_ASSERT(fd_ >= 0);
  const Uncancellable uncancellable;  // a turn that is taken would never be given back
  const bool is_nested = is_held_by_this_thread();
  LockWait wait(path_);
  take_turn(wait);
  lock_file(wait);
  if (!is_nested) {  // else the note is that of an append under way
    undo_unfinished_append();
  }
}

void StoreFLock::unlock() {
  leave_parents_lock();
  CACHE_ASSERT(fd_ >= 0);
  if (is_open_on_own_file()) {  // otherwise the lock was released when the program closed it
    call_flock(LOCK_UN);
  }
  owner_.store(nullptr);  // whoever took it: the file is free now
}

// flock sees one lock per open file; the threads that share it exclude each other here.
void StoreFLock::take_turn(LockWait& wait) {
  const void* owner = nullptr;
  while (!owner_.compare_exchange_strong(owner, &t_identity) && owner != &t_identity) {
    wait.pause(&getpid);
    owner = nullptr;
  }
}

bool StoreFLock::is_held_by_this_thread() const { return owner_ == &t_identity; }

void StoreFLock::lock_file(LockWait& wait) {
  do {
    ensure_open();
    CACHE_ASSERT(fd_ >= 0);
    while (flock(fd_, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
      wait.pause([this] { return flock_holder({device_, inode_}); });
    }
    call_flock(LOCK_EX);  // held already, unless the attempt failed otherwise
  } while (is_replaced() && (take_file_at_path() || must_try_again(wait)));
}

// After a new lock file could not be opened. Where there can be none, the old one is as
// good; else others may hold the new one.
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

// Whether the number is still that of the lock file: the program may have closed all
// descriptors and opened files of its own.
bool StoreFLock::is_open_on_own_file() const {
  return descriptor::is_open_on(fd_, {device_, inode_});
}

// A child that shared the descriptor would keep the lock of a parent that is killed.
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

bool StoreFLock::open_at_path() {
  return open_own([this] { return open_to_lock(path_.c_str(), O_CREAT); });
}

bool StoreFLock::ensure_open() { return is_open_on_own_file() || open_at_path(); }

// Whether the name leads to another file than the one that is locked, or to none.
bool StoreFLock::is_replaced() const {
  struct stat status;
  if (stat(path_.c_str(), &status) != 0) {
    return errno == ENOENT;
  }
  return status.st_dev != device_ || status.st_ino != inode_;
}

// False, with the old file still open, when the one of this name can't be opened.
bool StoreFLock::take_file_at_path() {
  return fork_guard::open_unshared(
      InProcess::mutex, [this] { return open_to_lock(path_.c_str(), O_CREAT); },
      [this](int fd) {
        if (fd >= 0) {
          const int old = fd_;
          keep(fd);
          close(old);
        }
      });
}

// Called before each sequence. True when a lock that was open once can no longer be
// opened: a child may have lost its root directory or its permissions.
bool StoreFLock::is_lost() {
  leave_parents_lock();
  if (!was_open()) {
    return false;  // lock() reports it
  }
  const Uncancellable uncancellable;
  const bool is_nested = is_held_by_this_thread();
  LockWait wait(path_);
  take_turn(wait);
  const bool is_found = ensure_open() && (!is_replaced() || take_file_at_path() ||
                                          (!is_inherited_ && has_no_place()));
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

// An inherited descriptor shares its parent's lock: it would exclude nothing, and
// unlocking it would drop the parent's. Usually the fork handler calls this; in a child
// that was made by a raw clone, the first caller, and others wait for it.
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

// Allocates nothing. A file that can't be opened now is tried again at the first use.
void StoreFLock::reopen_in_child() {
  if (!is_open_on_own_file()) {
    return;
  }
  const int inherited = fd_;
  std::array<char, 32> self;
  std::snprintf(self.data(), self.size(), "/proc/self/fd/%d", inherited);
  const bool is_open = open_own([&self] { return open_to_lock(self.data(), 0); });
  close(inherited);
  if (!is_open) {  // no /proc, or no descriptor to spare until now
    open_at_path();
  }
}

// --- the note of an append ---

// With the lock in hand: nobody else is in the middle of an append.
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
  holds_store_ = is_store_file(content);
  const auto note = AppendNote::decode(path_.substr(0, path_.rfind('/')), content);
  const std::string paths = note ? note->paths() : "";
  const auto undone = note ? note->undo() : AppendNote::Undone::nothing;
  if (undone == AppendNote::Undone::something) {
    QV_LOG(g_module, WARN, "Undid an append to %s that was cut short", paths.c_str());
  } else if (undone == AppendNote::Undone::failed) {
    QV_LOG(g_module, WARN, "Couldn't undo an append to %s that was cut short", paths.c_str());
    note_stays_ = true;  // for a process that can
    return;
  }
  note_stays_ = !clear_note() && note;
} catch (const std::bad_alloc&) {
  note_stays_ = true;
}

// False when the lock file holds an old note that can't be cleared: because of it the
// next process would undo what is now appended. A note that can't be written (the disk is full,
// say) is no reason not to append.
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

// Where the file can't be cut, the note is overwritten: no note is to undo an append
// that has ended.
bool StoreFLock::clear_note() {
  constexpr std::array<char, kNoteHeaderSize> kNoNote{};
  return holds_store_ ||
         (is_open_on_own_file() &&
          (ftruncate(fd_, 0) == 0 || pwrite(fd_, kNoNote.data(), kNoNote.size(), 0) > 0));
}

}  // namespace cache
}  // namespace quorvane
