// What a process that appends to store files notes in the lock file, so that another
// one can undo what it left unfinished.
#ifndef QUORVANE_SRC_CACHE_APPEND_NOTE_H_
#define QUORVANE_SRC_CACHE_APPEND_NOTE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "src/descriptor.h"

namespace quorvane {
namespace cache {

// The files of one append as they were before its first byte. All are in the lock
// file's directory: whatever a lock file holds, it leads to no other place.
// Thread-safety: one thread at a time, with the lock in hand.
class AppendNote {
 public:
  // `directory` is that of the lock file.
  explicit AppendNote(std::string directory);

  // Adds a file as it is now. One in another directory, or that is no regular file, is
  // left out.
  void add(const std::string& path);

  // Creates the files that are missing, empty, so that the note can identify them. One
  // that can't be created fails the append when that opens it.
  void create_missing();
  bool has_missing() const;

  // Notes which files are there now that could not be created before. Returns whether
  // there are any.
  bool identify_created();

  enum class Undone { nothing, something, failed };

  // Puts the files back: cuts those that have grown and deletes those that are new.
  // When one that was there is gone, the append had failed and was deleting its files,
  // so the others are deleted too. A file that was replaced meanwhile stays as it is.
  // Failed: the kernel refused it, and the note must stay. Allocates nothing.
  Undone undo() const noexcept;

  // The files' paths, separated by commas.
  std::string paths() const;

  // Replaces `bytes` by the note in bytes, which needs no more memory the second time.
  // decode() gives nothing for bytes that make no sense.
  void encode(std::string& bytes) const;
  static std::optional<AppendNote> decode(std::string directory, std::string_view bytes);

 private:
  struct File {
    Undone undo(bool delete_it) const noexcept;
    Undone cut_back() const noexcept;

    std::string path;
    bool existed;
    descriptor::FileId id;  // of a missing file: 0 until it is created
    std::uint64_t size;     // in bytes
  };

  bool is_being_deleted() const noexcept;
  std::string_view name_of(const File& file) const;

  std::string directory_;
  std::vector<File> files_;
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_APPEND_NOTE_H_
