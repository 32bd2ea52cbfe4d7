// qvutil find: the keys of a cache, by prefix and size.
#ifndef TOOLS_QVUTIL_COMMANDS_FIND_H_
#define TOOLS_QVUTIL_COMMANDS_FIND_H_

#include <cstdint>
#include <optional>
#include <string>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

struct FindOptions {
  std::string cache;
  std::string kind;  // empty: found out
  std::string prefix;
  bool hex = false;                       // the prefix is, and keys are shown, in hexadecimal
  std::optional<std::uint64_t> min_size;  // of the value, in bytes
  std::optional<std::uint64_t> max_size;
  std::uint64_t limit = 0;  // of keys; 0: none
};

// Found: there is no such key, or the cache is damaged.
Outcome find(Console& console, const FindOptions& options);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_COMMANDS_FIND_H_
