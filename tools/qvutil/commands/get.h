// qvutil get: the bytes of one value.
#ifndef TOOLS_QVUTIL_COMMANDS_GET_H_
#define TOOLS_QVUTIL_COMMANDS_GET_H_

#include <cstdint>
#include <optional>
#include <string>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

struct GetOptions {
  std::string cache;
  std::string kind;  // empty: found out
  std::string key;
  bool hex = false;                   // the key is in hexadecimal digits
  std::optional<std::uint64_t> atom;  // which, from 0; needed if there are several
};

// Found: there is no such key.
Outcome get(Console& console, const GetOptions& options);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_COMMANDS_GET_H_
