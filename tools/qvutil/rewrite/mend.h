// Puts what is whole of a damaged cache in its place.
#ifndef TOOLS_QVUTIL_REWRITE_MEND_H_
#define TOOLS_QVUTIL_REWRITE_MEND_H_

#include <string>
#include <vector>

#include "qvutil/output/console.h"
#include "qvutil/rewrite/damage_report.h"

namespace quorvane::tool {

// The caller holds the lock, and has surveyed the cache under it. Returns the names that the
// replaced files have now. A kill at any point leaves the damaged cache or the whole one; then a
// second call finishes. Throws Failure.
std::vector<std::string> mend(Console& console, const CacheFiles& cache,
                              const DamageReport& report);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_MEND_H_
