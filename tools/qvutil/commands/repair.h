// qvutil repair: what is whole of a damaged cache.
#ifndef TOOLS_QVUTIL_COMMANDS_REPAIR_H_
#define TOOLS_QVUTIL_COMMANDS_REPAIR_H_

#include <string>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

struct RepairOptions {
  std::string cache;
  std::string kind;      // "": any
  bool dry_run = false;  // only say what would be lost
};

// Fine: the cache is whole, or it is now. Found, with dry_run: it is damaged.
Outcome repair(Console& console, const RepairOptions& options);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_COMMANDS_REPAIR_H_
