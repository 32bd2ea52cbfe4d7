// The repair of a lazy cache.
#ifndef TOOLS_QVUTIL_REWRITE_MEND_LAZY_H_
#define TOOLS_QVUTIL_REWRITE_MEND_LAZY_H_

#include <string>
#include <vector>

#include "qvutil/output/console.h"
#include "qvutil/rewrite/workspace.h"

namespace quorvane::tool {

// For mend(). The values stay where they are: the new key file has the whole entries of the old
// one, and fits the old value file. If that has no header, it never opens, so it is replaced
// last, by a copy that has one.
std::vector<std::string> mend_lazy(Console& console, const Workspace& workspace,
                                   const CacheFiles& cache);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_MEND_LAZY_H_
