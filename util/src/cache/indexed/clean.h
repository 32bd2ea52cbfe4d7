// Replaces the files of an indexed store by smaller ones.
#ifndef QUORVANE_SRC_CACHE_INDEXED_CLEAN_H_
#define QUORVANE_SRC_CACHE_INDEXED_CLEAN_H_

#include <cstdint>
#include <string>
#include <vector>

#include "src/cache/indexed/cleaner_mark.h"
#include "src/cache/indexed/index_builder.h"
#include "src/cache/indexed/kept_entries.h"
#include "src/cache/indexed/pair.h"
#include "src/cache/indexed/paths.h"

namespace quorvane {
namespace cache {
namespace indexed {

// One clean: the entries that are kept are copied into new files, while others append to the
// old ones; then the new files get the names of the old ones.
//
// A kill leaves files that nobody uses, or an index that has got its name before its data
// file has: whoever has the store lock next finishes that (finish_rename).
class Clean {
 public:
  // `found` has the hashes of the keys that this process has found.
  Clean(const Paths& paths, const Bound& bound, std::vector<std::uint64_t> found)
      : paths_(paths), bound_(bound), found_(std::move(found)), mark_(paths_.cleaned_data) {}
  ~Clean();
  Clean(const Clean&) = delete;
  Clean& operator=(const Clean&) = delete;

  // With the store lock, when there is no file of another clean. False with errno.
  bool begin(const Pair& from);

  // Copies what there was at begin(), and writes the index of that. The store lock is not
  // needed. False with errno. May throw std::bad_alloc.
  bool copy(const Pair& from);

  // With the store lock: copies what was appended since. `from` has the same data file, and
  // is the present pair. If all is too much then, copies anew. False with errno. May throw
  // std::bad_alloc.
  bool copy_rest(const Pair& from);

  // With the store lock: forgets all copies. False with errno.
  bool start_empty();

  // With the store lock: gives the new files their names. `old` is the present pair. False
  // with errno. May throw std::bad_alloc.
  bool replace(const Pair& old);

  // Whether the new files have no names of the store yet.
  bool has_own_names() const { return has_own_names_; }

  std::uint64_t kept() const { return places_.size(); }

 private:
  bool add(const Pair& from, std::uint64_t offset, std::uint64_t covered);
  bool flush();
  bool open_copies(DataFile& data) const;
  bool write_index(const DataFile& data);
  bool complete_index(Pair& copies) const;

  const Paths& paths_;
  const Bound bound_;
  const std::vector<std::uint64_t> found_;
  CleanerMark mark_;
  std::uint64_t copied_to_ = 0;  // offset in the old data file
  std::uint64_t end_ = 0;        // of the new one
  std::string batch_;            // what follows there
  std::vector<IndexBuilder::Place> places_;
  std::size_t indexed_ = 0;  // of the places; 0 when the index has to be written anew
  bool has_own_names_ = false;
};

// With the store lock: gives the data file its name when the index has got its own. False
// with errno.
bool finish_rename(const Paths& paths);

// With the store lock, when no cleaner lives: deletes the files of one that was killed. Only
// when the present pair has its names.
void remove_leftovers(const Paths& paths);

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_CLEAN_H_
