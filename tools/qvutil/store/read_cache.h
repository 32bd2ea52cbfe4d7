// Reads a cache while other processes use it.
#ifndef TOOLS_QVUTIL_STORE_READ_CACHE_H_
#define TOOLS_QVUTIL_STORE_READ_CACHE_H_

#include <optional>
#include <utility>

#include "qvutil/store/bus_errors.h"
#include "qvutil/store/lock.h"
#include "qvutil/store/opened_cache.h"

namespace quorvane::tool {

// Returns what `read` returns for the opened cache. Holds the store's lock only while the end of
// the files isn't known.
template <typename Read>
auto read_cache(Console& console, const CacheFiles& files, const Read& read) {
  const BusErrors guard;
  std::optional<ReadLock> lock(std::in_place, console, files);
  OpenedCache cache(files, lock->noted());
  if (cache.leave_out_rest()) {
    lock.reset();
  }
  return read(cache);
}

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_READ_CACHE_H_
