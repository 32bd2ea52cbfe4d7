#include <quorvane/pidset.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "src/descriptor.h"

struct qv_pidset {
  int fd;
  std::uint64_t capacity;
  void* map;
};

namespace {

constexpr int kPresent = 1;
constexpr int kFull = 2;
constexpr int kLockFailed = 999;

std::size_t page_size() { return static_cast<std::size_t>(getpagesize()); }

// Restores errno: the caller needs that of the failure, not that of the cleanup.
class ErrnoKeeper {
 public:
  ~ErrnoKeeper() { errno = saved_; }

 private:
  int saved_ = errno;
};

qv_pidset_t* give_up(int fd) {
  const ErrnoKeeper keeper;
  flock(fd, LOCK_UN);
  return nullptr;
}

qv_pidset_t* unmap_and_give_up(int fd, void* map) {
  const ErrnoKeeper keeper;
  munmap(map, page_size());
  return give_up(fd);
}

// Atomic: other processes write the count while this one reads it without the lock.
std::atomic_ref<std::uint64_t> count_of(const qv_pidset_t* set) {
  return std::atomic_ref<std::uint64_t>(*static_cast<std::uint64_t*>(set->map));
}

std::int32_t* ids_of(const qv_pidset_t* set) {
  return reinterpret_cast<std::int32_t*>(static_cast<std::uint64_t*>(set->map) + 1);
}

// At most the capacity: a count that was damaged after the set was opened must not lead
// beyond the page. It isn't reported.
// Kept: docs/compatibility.md
std::size_t used_of(const qv_pidset_t* set) {
  return std::min(count_of(set).load(std::memory_order_acquire), set->capacity);
}

using FourIds = std::int32_t __attribute__((vector_size(16)));
using TwoWords = std::uint64_t __attribute__((vector_size(16)));

inline FourIds load(const std::int32_t* ids) {
  FourIds four;
  std::memcpy(&four, ids, sizeof(four));
  return four;
}

// All ones in each lane whose id is less than the bound.
inline FourIds less(const std::int32_t* ids, FourIds bound) { return bound > load(ids); }

// All ones in each lane whose id is equal to the next id.
inline FourIds repeated(const std::int32_t* ids) { return load(ids) == load(ids + 1); }

// The index of the first id not less than `pid`, or `count`. Scans from the front, 16 ids
// at a time, which also defines the result for ids that are not in order.
// Kept: docs/compatibility.md
std::size_t first_not_less(const std::int32_t* ids, std::size_t count, std::int32_t pid) {
  const FourIds bound = {pid, pid, pid, pid};
  std::size_t index = 0;
  for (; count - index >= 16; index += 16) {
    const std::int32_t* const block = ids + index;
    const auto all = reinterpret_cast<TwoWords>(less(block, bound) & less(block + 4, bound) &
                                                less(block + 8, bound) & less(block + 12, bound));
    if ((all[0] & all[1]) != ~std::uint64_t{0}) {
      break;
    }
  }
  while (index < count && ids[index] < pid) {
    ++index;
  }
  return index;
}

// A process may be killed between any two of these stores, so the compiler must not merge
// or reorder them, as it may those of memmove.
void store(std::int32_t& place, std::int32_t id) {
  std::atomic_ref<std::int32_t>(place).store(id, std::memory_order_release);
}

// Two ids in one store, to a place of even index: these are aligned to 8 bytes.
void store_two(std::int32_t* place, const std::int32_t* from) {
  using TwoIds = std::uint64_t __attribute__((may_alias));
  std::uint64_t ids;
  std::memcpy(&ids, from, sizeof(ids));
  __atomic_store_n(reinterpret_cast<TwoIds*>(place), ids, __ATOMIC_RELEASE);
}

// Copies the last id one place up before the count includes that place, then each id one
// place up before it is overwritten, so that no id is ever missing.
void insert(qv_pidset_t* set, std::size_t count, std::size_t index, std::int32_t pid) {
  std::int32_t* const ids = ids_of(set);
  store(ids[count], index < count ? ids[count - 1] : pid);
  count_of(set).store(count + 1, std::memory_order_release);
  std::size_t place = count;  // from this place on, all ids are final
  if (place % 2 != 0 && place > index + 1) {
    --place;
    store(ids[place], ids[place - 1]);
  }
  for (; place > index + 2; place -= 2) {
    store_two(ids + place - 2, ids + place - 3);
  }
  if (place > index + 1) {
    store(ids[place - 1], ids[place - 2]);
  }
  if (index < count) {
    store(ids[index], pid);
  }
}

// Copies each later id one place down before it is overwritten. The last id is there
// twice when the count drops; its second copy stays in the page.
// Kept: docs/compatibility.md
void erase(qv_pidset_t* set, std::size_t count, std::size_t index) {
  std::int32_t* const ids = ids_of(set);
  std::size_t place = index;  // below this place, all ids are final
  if (place % 2 != 0 && place + 1 < count) {
    store(ids[place], ids[place + 1]);
    ++place;
  }
  for (; place + 2 < count; place += 2) {
    store_two(ids + place, ids + place + 1);
  }
  if (place + 1 < count) {
    store(ids[place], ids[place + 1]);
  }
  count_of(set).store(count - 1, std::memory_order_release);
}

// The index of the first id that is equal to the next one, or `count`.
std::size_t first_repeated(const std::int32_t* ids, std::size_t count) {
  std::size_t index = 0;
  for (; count - index > 16; index += 16) {
    const std::int32_t* const block = ids + index;
    const auto any = reinterpret_cast<TwoWords>(repeated(block) | repeated(block + 4) |
                                                repeated(block + 8) | repeated(block + 12));
    if ((any[0] | any[1]) != 0) {
      break;
    }
  }
  return static_cast<std::size_t>(std::adjacent_find(ids + index, ids + count) - ids);
}

// Takes the lock, and removes the second copy of an id, if a killed process left one.
int lock_for_change(qv_pidset_t* set) {
  // Not repeated when a signal interrupts it.
  // Kept: docs/compatibility.md
  const int locked = flock(set->fd, LOCK_EX);
  if (locked == 0) {
    std::size_t count = used_of(set);
    for (std::size_t index; (index = first_repeated(ids_of(set), count)) < count; --count) {
      erase(set, count, index);
    }
  }
  return locked;
}

}  // namespace

qv_pidset_t* qv_pidset_open(const char* path) {
  // The descriptor survives an exec, and stays open if it holds no set.
  // Kept: docs/compatibility.md
  const int fd = quorvane::descriptor::open_off_standard(path, O_RDWR);
  return fd < 0 ? nullptr : qv_pidset_open_fd(fd);
}

qv_pidset_t* qv_pidset_open_fd(int fd) {
  if (flock(fd, LOCK_EX) != 0) {
    return nullptr;
  }
  struct stat status;
  if (fstat(fd, &status) != 0) {
    return give_up(fd);
  }
  const std::size_t page = page_size();
  const bool is_new = status.st_size == 0;
  if (is_new && ftruncate(fd, static_cast<off_t>(page)) != 0) {
    return give_up(fd);
  }
  // A writable page can also be read. A refused mapping isn't null and goes unnoticed
  // here: the first access ends the process.
  // Kept: docs/compatibility.md
  void* const map = mmap(nullptr, page, PROT_WRITE, MAP_SHARED, fd, 0);
  if (map == nullptr) {
    return give_up(fd);
  }
  if (is_new) {
    std::memset(map, 0, page);
  } else if (status.st_size != static_cast<off_t>(page)) {
    return unmap_and_give_up(fd, map);
  }
  auto* const set = static_cast<qv_pidset_t*>(std::calloc(1, sizeof(qv_pidset_t)));
  if (set == nullptr) {
    return unmap_and_give_up(fd, map);
  }
  // Also releases the lock of the handle that this one is a clone of.
  // Kept: docs/compatibility.md
  flock(fd, LOCK_UN);
  *set = {fd, qv_pidset_max_pid_count(), map};
  if (count_of(set).load(std::memory_order_relaxed) > set->capacity) {
    // Closes the descriptor, unlike the other failures.
    // Kept: docs/compatibility.md
    qv_pidset_close(set);
    return nullptr;
  }
  return set;
}

qv_pidset_t* qv_pidset_clone(qv_pidset_t* set) {
  const int fd = dup(set->fd);
  if (fd < 0) {
    return nullptr;
  }
  qv_pidset_t* const copy = qv_pidset_open_fd(fd);
  if (copy == nullptr) {
    const ErrnoKeeper keeper;
    // For the second time if the count was wrong.
    // Kept: docs/compatibility.md
    close(fd);
  }
  return copy;
}

void qv_pidset_close(qv_pidset_t* set) {
  munmap(set->map, page_size());
  close(set->fd);
  std::free(set);
}

int qv_pidset_add(qv_pidset_t* set, std::int32_t pid) {
  if (lock_for_change(set) != 0) {
    return kLockFailed;
  }
  const std::int32_t* const ids = ids_of(set);
  const std::size_t count = used_of(set);
  const std::size_t index = first_not_less(ids, count, pid);
  int result = 0;
  if (index < count && ids[index] == pid) {
    result = kPresent;
  } else if (count >= qv_pidset_max_pid_count()) {
    result = kFull;
  } else {
    insert(set, count, index, pid);
  }
  // Also releases a lock that the caller took. A failure isn't reported.
  // Kept: docs/compatibility.md
  flock(set->fd, LOCK_UN);
  return result;
}

int qv_pidset_remove(qv_pidset_t* set, std::int32_t pid) {
  const int locked = lock_for_change(set);
  if (locked != 0) {
    // -1, unlike kLockFailed of an addition.
    // Kept: docs/compatibility.md
    return locked;
  }
  const std::int32_t* const ids = ids_of(set);
  const std::size_t count = used_of(set);
  const std::size_t index = first_not_less(ids, count, pid);
  if (index < count && ids[index] == pid) {
    erase(set, count, index);
  }
  return flock(set->fd, LOCK_UN);
}

bool qv_pidset_contains(qv_pidset_t* set, std::int32_t pid) {
  const std::int64_t index = qv_pidset_ge_index(set, pid);
  return index >= 0 && ids_of(set)[index] == pid;
}

int qv_pidset_lock_contains(qv_pidset_t* set) {
  return flock(set->fd, LOCK_EX) == 0 ? 0 : kLockFailed;
}

int qv_pidset_unlock_contains(qv_pidset_t* set) { return flock(set->fd, LOCK_UN); }

std::int64_t qv_pidset_ge_index(qv_pidset_t* set, std::int32_t pid) {
  const std::size_t count = used_of(set);
  const std::size_t index = first_not_less(ids_of(set), count, pid);
  return index < count ? static_cast<std::int64_t>(index) : -1;
}

std::uint64_t* qv_pidset_count_ptr(qv_pidset_t* set) {
  return static_cast<std::uint64_t*>(set->map);
}

std::int32_t* qv_pidset_pidlist(qv_pidset_t* set) { return ids_of(set); }

std::uint64_t qv_pidset_max_pid_count() { return (page_size() - 8) >> 2; }
