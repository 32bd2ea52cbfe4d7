// qvutil show: the entries of a cache.
#ifndef TOOLS_QVUTIL_COMMANDS_SHOW_H_
#define TOOLS_QVUTIL_COMMANDS_SHOW_H_

#include <cstdint>
#include <string>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

struct ShowOptions {
  std::string cache;
  std::string kind;         // empty: found out
  bool hex = false;         // keys and atoms as hexadecimal digits
  bool full = false;        // long ones, too
  std::uint64_t limit = 0;  // of entries; 0: none
};

// Found: the cache is damaged. What is whole is shown.
Outcome show(Console& console, const ShowOptions& options);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_COMMANDS_SHOW_H_
