// The lock of a store.
#ifndef TOOLS_QVUTIL_STORE_LOCK_H_
#define TOOLS_QVUTIL_STORE_LOCK_H_

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <quorvane/file_store.h>

#include "qvutil/output/console.h"
#include "qvutil/store/cache_files.h"
#include "qvutil/store/lock_note.h"

namespace quorvane::tool {

// Makes the lock file of a cache if there is none. Whoever may use the file `like` may take the
// lock, also if root makes it. Does nothing without such a file, or if the kernel refuses: then the
// library tries.
void ensure_lock_file(const CacheFiles& files, const std::string& like);

// The exclusive lock, as a process with the library takes it: it undoes an append that was cut
// short. For commands that change files. Waiting for longer than a second is said on standard
// error, with the holder.
class WriteLock {
 public:
  // Makes the lock file, like the data. Throws Failure if it can't be opened.
  WriteLock(Console& console, const CacheFiles& files);
  ~WriteLock();
  WriteLock(const WriteLock&) = delete;
  WriteLock& operator=(const WriteLock&) = delete;

 private:
  std::unique_ptr<cache::StoreFLock> lock_;
};

// Keeps writers out, changes nothing: a note of an append that was cut short stays. No lock if
// there is no lock file.
class ReadLock {
 public:
  // Waits for it, like WriteLock. Throws Failure if the lock file can't be read.
  ReadLock(Console& console, const CacheFiles& files);
  // Nothing if a writer holds it.
  static std::optional<ReadLock> try_lock(const CacheFiles& files);
  ReadLock(ReadLock&& other) noexcept;
  ReadLock& operator=(ReadLock&&) = delete;
  ~ReadLock();

  // Whether a killed process has left the note of an append: the next writer undoes it.
  bool has_note() const { return !noted_.empty(); }
  // The files as they were before that.
  const std::vector<NotedFile>& noted() const { return noted_; }

 private:
  ReadLock() = default;
  void read_note();

  int fd_ = -1;
  std::vector<NotedFile> noted_;
};

// The process that holds the lock, if there is one and the kernel tells.
std::optional<pid_t> holder_of(const CacheFiles& files);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_LOCK_H_
