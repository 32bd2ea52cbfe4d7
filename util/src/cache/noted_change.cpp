#include "src/cache/noted_change.h"

#include <quorvane/file_store.h>

namespace quorvane {
namespace cache {
namespace {

std::string directory_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

AppendNote note_of(std::string directory, std::initializer_list<const std::string*> paths) {
  AppendNote note(std::move(directory));
  for (const std::string* path : paths) {
    note.add(*path);
  }
  return note;
}

}  // namespace

NotedChange::NotedChange(StoreFLock* lock, std::initializer_list<const std::string*> paths)
    : lock_(lock != nullptr && lock->is_held_by_this_thread() ? lock : nullptr),
      note_(note_of(directory_of(lock_ != nullptr ? lock_->path_ : **paths.begin()), paths)),
      may_begin_(put_note()) {}

NotedChange::~NotedChange() {
  if (may_begin_ && !ended_ && note_.undo() != AppendNote::Undone::failed) {
    end();  // otherwise the note stays for the next process
  }
}

void NotedChange::create_missing() {
  if (note_.has_missing()) {
    note_.create_missing();
    put_note();
  }
}

void NotedChange::identify_created() {
  if (note_.has_missing() && note_.identify_created()) {
    put_note();
  }
}

void NotedChange::end() {
  ended_ = true;
  if (lock_ != nullptr) {
    lock_->clear_note();
  }
}

bool NotedChange::put_note() {
  note_.encode(bytes_);
  return lock_ == nullptr || lock_->put_note(bytes_);
}

}  // namespace cache
}  // namespace quorvane
