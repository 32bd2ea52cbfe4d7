// A cache that needn't exist yet.
#ifndef TOOLS_QVUTIL_REWRITE_TARGET_H_
#define TOOLS_QVUTIL_REWRITE_TARGET_H_

#include <string>

#include "qvutil/store/cache_files.h"

namespace quorvane::tool {

// `cache` is a path ROOT/NAME, or a name under the environment's root. Throws Failure if it is
// neither.
CacheFiles named_cache(const std::string& cache, Kind kind);

// Throws Failure if files of other caches, or of this tool, have names like that of the new cache.
void expect_own_name(const CacheFiles& cache);

// The lock of a cache, the same for all paths that lead to it. Throws Failure if there is no such
// directory.
std::string canonical_lock(const CacheFiles& cache);

// Whether it has something that a new one would replace.
bool has_content(const CacheFiles& cache);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_TARGET_H_
