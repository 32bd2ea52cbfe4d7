// Finds out quickly that a cache is intact.
#ifndef TOOLS_QVUTIL_STORE_INTACT_H_
#define TOOLS_QVUTIL_STORE_INTACT_H_

#include <cstdint>
#include <optional>

#include "qvutil/store/opened_cache.h"

namespace quorvane::tool {

// The number of entries, if a scan of the cache would find no place. Two threads look at one half
// of the data each. Nothing if there may be a place, and for caches that are too small to gain from
// this, or too large for the memory.
std::optional<std::uint64_t> entries_if_intact(Console& console, OpenedCache& cache,
                                               Progress& progress);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_INTACT_H_
