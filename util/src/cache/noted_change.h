// A change to a store's files that is undone unless it completes.
#ifndef QUORVANE_SRC_CACHE_NOTED_CHANGE_H_
#define QUORVANE_SRC_CACHE_NOTED_CHANGE_H_

#include <initializer_list>
#include <string>

#include "src/cache/append_note.h"

namespace quorvane {
namespace cache {

class StoreFLock;

// Construct it before the change, while holding the store lock. If that is a StoreFLock, a
// note in its file tells the next process how to undo the change, should this one be killed.
// Without a call of end(), for example when an exception is thrown, the destructor undoes
// the change.
class NotedChange {
 public:
  // `lock` is null when the store has a lock of another kind. May throw std::bad_alloc, and
  // then has changed nothing.
  NotedChange(StoreFLock* lock, std::initializer_list<const std::string*> paths);
  ~NotedChange();
  NotedChange(const NotedChange&) = delete;
  NotedChange& operator=(const NotedChange&) = delete;

  // False when the lock file holds an older note that can't be cleared. The next process
  // would act on it and undo this change too.
  bool may_begin() const { return may_begin_; }

  // Creates the missing files, empty: the note must have a file's inode before the file
  // holds anything.
  void create_missing();

  // Call it once the files are open. Notes the files that were created only then.
  void identify_created();

  // Restores the files.
  void undo() const { note_.undo(); }

  // Ends the change: from now on nothing is undone, whether it succeeded or failed.
  void end();

 private:
  bool put_note();

  StoreFLock* lock_;
  AppendNote note_;
  std::string bytes_;
  bool may_begin_;
  bool ended_ = false;
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_NOTED_CHANGE_H_
