// qvutil rm: a cache without some of its entries.
#ifndef TOOLS_QVUTIL_COMMANDS_RM_H_
#define TOOLS_QVUTIL_COMMANDS_RM_H_

#include <string>
#include <vector>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

struct RmOptions {
  std::string cache;
  std::string kind;  // "": any
  std::vector<std::string> keys;
  bool hex = false;  // the keys are hexadecimal
};

// Found: a key wasn't there. The others are removed nevertheless.
Outcome rm(Console& console, const RmOptions& options);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_COMMANDS_RM_H_
