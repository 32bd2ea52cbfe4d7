// One entry of a cache.
#ifndef TOOLS_QVUTIL_STORE_FIND_ENTRY_H_
#define TOOLS_QVUTIL_STORE_FIND_ENTRY_H_

#include <functional>
#include <string_view>

#include "qvutil/output/console.h"
#include "qvutil/store/cache_files.h"
#include "qvutil/store/scan.h"

namespace quorvane::tool {

// Calls `use` with a whole entry that has the key. False if there is none. An indexed store's
// index leads to it; where that doesn't, and in other kinds, it is the first one of all entries.
// What is damaged is passed over, and counted on standard error if the key isn't found.
bool find_entry(Console& console, const CacheFiles& files, std::string_view key,
                const std::function<void(const Entry&)>& use);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_FIND_ENTRY_H_
