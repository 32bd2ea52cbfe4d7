// qvutil compact: a cache in as few bytes as its entries need.
#ifndef TOOLS_QVUTIL_COMMANDS_COMPACT_H_
#define TOOLS_QVUTIL_COMMANDS_COMPACT_H_

#include <string>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

struct CompactOptions {
  std::string cache;
  std::string kind;  // "": any
};

// Drops repeated keys, tails that were cut short, and values that no key leads to.
Outcome compact(Console& console, const CompactOptions& options);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_COMMANDS_COMPACT_H_
