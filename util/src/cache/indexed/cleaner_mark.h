// The mark of a live cleaner: a lock on the file into which it copies.
#ifndef QUORVANE_SRC_CACHE_INDEXED_CLEANER_MARK_H_
#define QUORVANE_SRC_CACHE_INDEXED_CLEANER_MARK_H_

#include <atomic>
#include <string>

#include "src/descriptor.h"

namespace quorvane {
namespace cache {
namespace indexed {

// One cleaner's own mark, or a look at another's. The kernel removes the mark of a cleaner
// that is killed. A child of fork closes its copies of the descriptors: it would keep its
// parent's mark alive.
// Thread-safety: one thread uses it; another may fork at any moment.
class CleanerMark {
 public:
  enum class State { no_file, dead, live, unknown };

  // `path` is the file's, and must outlive the mark.
  explicit CleanerMark(const std::string& path) : path_(path) {}
  ~CleanerMark();
  CleanerMark(const CleanerMark&) = delete;
  CleanerMark& operator=(const CleanerMark&) = delete;

  // Makes the file, which doesn't exist, and marks it. The store lock is held, so that no
  // process finds the file without its mark. False with errno.
  bool create();

  // Whether the file still has the mark of this object.
  bool is_held() const { return descriptor::is_open_on(fd_, id_); }
  int fd() const { return fd_; }
  const descriptor::FileId& id() const { return id_; }

  // Looks for another's mark. The store lock is held, so that the file keeps its name.
  State look();

  // After `live`: waits until that cleaner has ended. The store lock is not held, since the
  // cleaner needs it.
  void wait() const;

 private:
  struct InProcess;

  bool open(int flags);
  void keep(int fd);
  void leave_to_parent();

  const std::string& path_;
  std::atomic<int> fd_{-1};
  descriptor::FileId id_;
  bool is_listed_ = false;
  CleanerMark* next_ = nullptr;  // in the list of all marks of the process
  CleanerMark* previous_ = nullptr;
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_CLEANER_MARK_H_
