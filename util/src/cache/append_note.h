// The note that an append leaves in the lock file while it runs, so that another process
// can undo the append if this one is killed.
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

// The files of one append, as they were before it. All are in the lock file's directory, so
// that the content of a lock file can't lead anywhere else.
// Thread-safety: one thread at a time, which holds the lock.
class AppendNote {
 public:
  // `directory` is that of the lock file.
  explicit AppendNote(std::string directory);

  // Adds a file as it is now. Ignores a file in another directory, and one that is not a
  // regular file.
  void add(const std::string& path);

  // Creates the missing files, empty, so that the note can identify them. If a file
  // can't be created, the append fails later, when it opens that file.
  void create_missing();
  bool has_missing() const;

  // Identifies the files that create_missing() could not create and that exist by now.
  // Returns whether there are any.
  bool identify_created();

  enum class Undone { nothing, something, failed };

  // Restores the files: truncates those that have grown and deletes the new ones. If a file
  // that existed is gone, the append had failed and was deleting its files, so this deletes
  // the others too. Leaves alone a file that was replaced in the meantime. `failed` means
  // that the kernel refused and that the note must stay. Allocates nothing.
  Undone undo() const noexcept;

  // The files' paths, separated by commas.
  std::string paths() const;

  // Writes the note to `bytes`. Encoding the same note there again needs no more memory.
  // decode() returns nothing for bytes that are not a note.
  void encode(std::string& bytes) const;
  static std::optional<AppendNote> decode(std::string directory, std::string_view bytes);

 private:
  struct File {
    Undone undo(bool delete_it) const noexcept;
    Undone cut_back() const noexcept;

    std::string path;
    bool existed;
    descriptor::FileId id;  // 0 for a missing file, until it is created
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
