// qvutil top: what takes the space of a cache.
#ifndef TOOLS_QVUTIL_COMMANDS_TOP_H_
#define TOOLS_QVUTIL_COMMANDS_TOP_H_

#include <cstdint>
#include <string>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

struct TopOptions {
  std::string cache;
  std::string kind;            // empty: found out
  bool hex = false;            // keys in hexadecimal
  std::uint64_t largest = 10;  // how many of the largest entries
};

// Found: the cache is damaged. What is whole counts.
Outcome top(Console& console, const TopOptions& options);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_COMMANDS_TOP_H_
