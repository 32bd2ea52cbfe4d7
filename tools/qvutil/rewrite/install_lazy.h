// The two files of a lazy cache can't be replaced at once.
#ifndef TOOLS_QVUTIL_REWRITE_INSTALL_LAZY_H_
#define TOOLS_QVUTIL_REWRITE_INSTALL_LAZY_H_

#include "qvutil/store/cache_files.h"

namespace quorvane::tool {

// For install(). Replaces the files one by one, so that each key file that has the name fits the
// value file that has the name:
//
//   1. the new values are appended to the old value file, which then has both;
//   2. a key file that leads to them there replaces the old one: from now on the cache is new;
//   3. a value file replaces the old one that has the new values twice: at its start, and where
//      the key file looks for them;
//   4. the key file that leads to its start replaces the other;
//   5. the value file is cut behind its start.
//
// Nobody can have mapped what is cut: all of it happens under the lock.
void install_lazy(const CacheFiles& staged, const CacheFiles& cache);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_INSTALL_LAZY_H_
