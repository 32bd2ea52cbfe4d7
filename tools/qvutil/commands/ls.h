// qvutil ls: the caches of a root.
#ifndef TOOLS_QVUTIL_COMMANDS_LS_H_
#define TOOLS_QVUTIL_COMMANDS_LS_H_

#include <string>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

struct LsOptions {
  std::string root;  // empty: that of the environment
};

// Found: a cache is damaged, or can't be looked at.
Outcome ls(Console& console, const LsOptions& options);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_COMMANDS_LS_H_
