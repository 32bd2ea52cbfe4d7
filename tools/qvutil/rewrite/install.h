// Puts new files of a cache in the place of the old ones.
#ifndef TOOLS_QVUTIL_REWRITE_INSTALL_H_
#define TOOLS_QVUTIL_REWRITE_INSTALL_H_

#include <string>

#include "qvutil/store/cache_files.h"

namespace quorvane::tool {

// The staged files, which a writer has finished in a directory below the root, become those of
// `cache`. A kill at any point leaves a cache that opens with the old entries or with the new
// ones. The caller holds the lock. Throws Failure; then, too, it is one or the other.
//
// The files get the owner and the mode of the file `like`, or of the old main file, if there is
// one.
//
// A lazy cache must have both files, or be damaged: `ensure_pair` makes them.
void install(const CacheFiles& staged, const CacheFiles& cache);
void install(const CacheFiles& staged, const CacheFiles& cache, const std::string& like);

// Makes the two files of a lazy cache, without entries, if neither exists. Does nothing for the
// other kinds. Takes the lock.
void ensure_pair(const CacheFiles& cache);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_INSTALL_H_
