// The files of a cache as they are at one moment.
#ifndef TOOLS_QVUTIL_STORE_OPENED_CACHE_H_
#define TOOLS_QVUTIL_STORE_OPENED_CACHE_H_

#include <cstdint>
#include <optional>
#include <vector>

#include "qvutil/store/cache_files.h"
#include "qvutil/store/index_view.h"
#include "qvutil/store/lock_note.h"
#include "qvutil/store/mapped_file.h"
#include "qvutil/store/scan.h"

namespace quorvane::tool {

struct OpenedCache {
  // Opens the files with the lock, if somebody may write. `noted` is what the lock file says of
  // an append that was cut short: what it has appended is left out. Throws Failure if a file
  // can't be opened, or has another version of its format.
  OpenedCache(const CacheFiles& files, const std::vector<NotedFile>& noted);

  // Whether the next writer may cut the data of an indexed store.
  bool ends_with_rest() const;

  // With the lock: leaves that rest out, so that the lock isn't needed any more. False if the
  // data is damaged, and so its end isn't known: whoever reads it must keep the lock.
  bool leave_out_rest();

  std::uint64_t bytes() const;
  std::int64_t changed() const;  // seconds since 1970

  Kind kind;
  std::optional<MappedFile> main;    // with the keys
  std::optional<MappedFile> values;  // of a lazy look-up store
  std::optional<IndexView> index;    // of an indexed store whose data has a header
  std::vector<Place> places;         // that were found meanwhile

 private:
  void leave_out(MappedFile& file, const std::vector<NotedFile>& noted);
  void open_index(const CacheFiles& files);
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_OPENED_CACHE_H_
