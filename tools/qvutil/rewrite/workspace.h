// Where new files of a cache are written before they take their place.
#ifndef TOOLS_QVUTIL_REWRITE_WORKSPACE_H_
#define TOOLS_QVUTIL_REWRITE_WORKSPACE_H_

#include <string>

#include "qvutil/store/cache_files.h"

namespace quorvane::tool {

// A directory in the root of the cache, so that its files can be renamed into place. No kind of
// store takes a directory for a cache. The caller holds the lock of the cache: there is one
// workspace for each lock, so what is in it was left by a killed process.
class Workspace {
 public:
  // Empty at first. Throws Failure if it can't be made.
  explicit Workspace(const CacheFiles& cache);
  // Removes it with all that is in it.
  ~Workspace();
  Workspace(const Workspace&) = delete;
  Workspace& operator=(const Workspace&) = delete;

  // Removes what a killed process left, for a command that needs no workspace.
  static void remove_leftovers(const CacheFiles& cache);

  // The same cache, but with its files here.
  const CacheFiles& staged() const { return staged_; }

 private:
  CacheFiles staged_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_WORKSPACE_H_
