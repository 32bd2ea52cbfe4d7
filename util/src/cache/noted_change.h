// One change of a store's files that is undone unless it ends.
#ifndef QUORVANE_SRC_CACHE_NOTED_CHANGE_H_
#define QUORVANE_SRC_CACHE_NOTED_CHANGE_H_

#include <initializer_list>
#include <string>

#include "src/cache/append_note.h"

namespace quorvane {
namespace cache {

class StoreFLock;

// Made before the change, with the store lock in hand. Where that is a lock on a file, a
// note in the file tells the next process that takes the lock what a killed one left
// unfinished. Without end() (an exception is under way, say) the destructor undoes the
// change itself.
class NotedChange {
 public:
  // `lock` is null where the store has a lock of another kind. Throws std::bad_alloc,
  // having changed nothing.
  NotedChange(StoreFLock* lock, std::initializer_list<const std::string*> paths);
  ~NotedChange();
  NotedChange(const NotedChange&) = delete;
  NotedChange& operator=(const NotedChange&) = delete;

  // False when the lock file holds an older note that can't be cleared: the next process
  // would undo this change as well.
  bool may_begin() const { return may_begin_; }

  // Creates the files that are missing, empty: what is to be undone has to be known by
  // its inode before it holds anything.
  void create_missing();

  // After the files were opened: notes those that only then came into being.
  void identify_created();

  // Puts the files back.
  void undo() const { note_.undo(); }

  // The files are as they are meant to be, whether the change succeeded or failed.
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
