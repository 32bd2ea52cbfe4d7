// Every byte of a cache's files: its whole entries, and the places that are not whole.
#ifndef TOOLS_QVUTIL_STORE_SCAN_H_
#define TOOLS_QVUTIL_STORE_SCAN_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "qvutil/output/progress.h"
#include "qvutil/store/cache_files.h"

namespace quorvane::tool {

// An entry that is whole by the format. The views are into the mapped files, and good during
// the call.
struct Entry {
  std::uint64_t offset = 0;  // in the main file
  std::uint64_t size = 0;    // there, without padding
  std::string_view key;
  std::vector<std::string_view> atoms;
};

// A place in a file that is not as the format says.
struct Place {
  std::string file;  // its name, without directories
  std::uint64_t offset = 0;
  std::uint64_t size = 0;  // up to where whole bytes go on
  std::string reason;      // "the checksum of the entry is wrong"
  bool is_damage = true;   // otherwise only odd: the library takes it for no damage
  // The entry here is whole, and was visited, but an earlier one has its key. Such places come
  // after all entries.
  bool is_repeated_key = false;
};

// The reason of a place where an entry should begin.
constexpr const char* kNoEntry = "no entry begins here";

class Visitor {
 public:
  virtual ~Visitor() = default;
  // In the order of the main file. An entry whose key an earlier one has comes, too.
  virtual void entry(const Entry& entry) = 0;
  virtual void place(const Place& place) = 0;
};

struct Scanned {
  std::uint64_t entries = 0;  // whole ones
  std::uint64_t bytes = 0;    // of all files of the cache
};

// Visits all entries and all places. Goes on behind a damaged place with the next entry that is
// whole. Takes the store's lock only to learn how far the files are whole, and reads without it,
// while other processes append. Memory doesn't grow with the number of entries. Throws Failure
// if a file can't be opened, or has another version of the format.
Scanned scan(Console& console, const CacheFiles& files, Visitor& visitor, Progress& progress);

// The same for a caller that only wants to hear of places: entries of a cache that has none aren't
// visited. Two threads look for places, and so take half of the time.
Scanned scan_places(Console& console, const CacheFiles& files, Visitor& visitor,
                    Progress& progress);

// The same for a caller that holds the lock.
Scanned scan_locked(const CacheFiles& files, Visitor& visitor, Progress& progress);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_SCAN_H_
